// The adaptive descent step (AdaptiveDescent in RefinementSettings.h): each
// vertex takes its photometric and smoothness steps as one move, scaled by a
// factor of the vertex's own that shrinks when the move turns against the
// previous iteration's and grows back otherwise, and capped at a share of
// the vertex's pixel footprint.
#pragma once

#include <cstdint>

#include "DeviceCommon.h"

namespace tessaline {

// The numbers of the rule, as the kernel takes them.
struct AdaptiveStepRule {
    float photometric;    // the photometric step at a factor of 1
    float smoothness;     // the step of the smoothness gradient of the level's order
    float turn_factor;    // the factor is multiplied by this when the move turns
    float regrow_factor;  // and by this otherwise, up to 1
    float max_move;       // cap of a move, in pixel footprints
    float settled_move;   // a vertex that moves less has settled, in pixel footprints
};

// What each vertex keeps from one iteration to the next, and what the step
// tells about it.
struct VertexStepState {
    float* factor;           // 1 per vertex, starts at 1
    float* previous;         // 3 per vertex: the last iteration's descent direction, starts at 0
    const float* footprint;  // 1 per vertex: its pixel footprint (AdaptiveStep.h, vertexFootprints)
    uint8_t* moving;         // 1 per vertex, written: 1 when it moved more than the settled move
};

struct Kernel_AdaptiveDescent {
    // vertex read and written, both gradients read, previous direction read
    // and written, factor read and written, footprint read, moving written
    static constexpr int kFloorBytesPerElement = 85;
    int num_v;
    float* vertices;
    const float* grad_photo;
    const float* grad_smooth;
    AdaptiveStepRule rule;
    VertexStepState state;

    // The factor after this iteration's descent direction d (the move is -d
    // times the factor); d is kept for the next iteration.
    DEVICE_HOST float nextFactor(int id, const float d[3]) const {
        float* previous = state.previous + 3 * id;
        const float along = d[0] * previous[0] + d[1] * previous[1] + d[2] * previous[2];
        for (int k = 0; k < 3; ++k) previous[k] = d[k];
        const float factor = state.factor[id];
        const float next = along < 0.0f ? factor * rule.turn_factor : factor * rule.regrow_factor;
        state.factor[id] = next < 1.0f ? next : 1.0f;
        return state.factor[id];
    }

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        // The fixed steps' move, reversed: photometric step times GRAD_PHOTO
        // plus smoothness step times the smoothness gradient.
        float d[3];
        for (int k = 0; k < 3; ++k)
            d[k] = fmaF(grad_smooth[3 * id + k], rule.smoothness, grad_photo[3 * id + k] * rule.photometric);
        const float factor = nextFactor(id, d);
        float move[3];
        for (int k = 0; k < 3; ++k) move[k] = -(d[k] * factor);
        float length = sqrtf(move[0] * move[0] + move[1] * move[1] + move[2] * move[2]);
        const float limit = rule.max_move * state.footprint[id];
        if (length > limit) {
            const float scale = limit / length;
            for (int k = 0; k < 3; ++k) move[k] = move[k] * scale;
            length = limit;
        }
        for (int k = 0; k < 3; ++k) vertices[3 * id + k] = vertices[3 * id + k] + move[k];
        state.moving[id] = length > rule.settled_move * state.footprint[id] ? 1 : 0;
    }
};

}  // namespace tessaline
