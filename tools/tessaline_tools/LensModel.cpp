#include "LensModel.h"

#include <cmath>

namespace tessaline_tools {

namespace {

struct ModelLayout {
    const char* name;
    int numParams;
    bool oneFocal;  // f cx cy, or fx fy cx cy
    // Where the parameters after the pinhole ones go, in OpenCV's order
    // (0 = k1, 1 = k2, 2 = p1, 3 = p2, 4 = k3, ...).
    std::vector<int> coefficientSlots;
};

const std::vector<ModelLayout>& layouts() {
    static const std::vector<ModelLayout> models = {
        {"SIMPLE_PINHOLE", 3, true, {}},
        {"PINHOLE", 4, false, {}},
        {"SIMPLE_RADIAL", 4, true, {0}},
        {"RADIAL", 5, true, {0, 1}},
        {"OPENCV", 8, false, {0, 1, 2, 3}},
        {"FULL_OPENCV", 12, false, {0, 1, 2, 3, 4, 5, 6, 7}},
    };
    return models;
}

const ModelLayout* findLayout(const std::string& name) {
    for (const ModelLayout& m : layouts())
        if (name == m.name) return &m;
    return nullptr;
}

double* coefficient(LensDistortion& d, int slot) {
    double* slots[8] = {&d.k1, &d.k2, &d.p1, &d.p2, &d.k3, &d.k4, &d.k5, &d.k6};
    return slots[slot];
}

// The radial factor and its derivative with respect to r2.
void radialFactor(const LensDistortion& d, double r2, double& factor, double& derivative) {
    const double num = 1.0 + r2 * (d.k1 + r2 * (d.k2 + r2 * d.k3));
    const double den = 1.0 + r2 * (d.k4 + r2 * (d.k5 + r2 * d.k6));
    const double numDerivative = d.k1 + r2 * (2.0 * d.k2 + r2 * 3.0 * d.k3);
    const double denDerivative = d.k4 + r2 * (2.0 * d.k5 + r2 * 3.0 * d.k6);
    factor = num / den;
    derivative = (numDerivative * den - num * denDerivative) / (den * den);
}

bool denominatorPositive(const LensDistortion& d, double r2) {
    return 1.0 + r2 * (d.k4 + r2 * (d.k5 + r2 * d.k6)) > 0.0;
}

}  // namespace

bool LensDistortion::isZero() const {
    return k1 == 0 && k2 == 0 && p1 == 0 && p2 == 0 && k3 == 0 && k4 == 0 && k5 == 0 && k6 == 0;
}

std::array<double, 8> LensDistortion::opencvCoefficients() const { return {k1, k2, p1, p2, k3, k4, k5, k6}; }

bool isAcceptedLensModel(const std::string& modelName) { return findLayout(modelName) != nullptr; }

std::string acceptedLensModels() {
    std::string names;
    for (const ModelLayout& m : layouts()) names += (names.empty() ? "" : ", ") + std::string(m.name);
    return names;
}

bool lensFromParameters(const std::string& modelName, const std::vector<double>& params, LensCamera& camera,
                        std::string& error) {
    const ModelLayout* m = findLayout(modelName);
    if (!m) {
        error = "the camera model " + modelName + " is not one the import accepts (" + acceptedLensModels() + ")";
        return false;
    }
    if (params.size() != size_t(m->numParams)) {
        error = "the camera model " + modelName + " takes " + std::to_string(m->numParams) + " parameters, not " +
                std::to_string(params.size());
        return false;
    }
    camera = LensCamera();
    const size_t pinhole = m->oneFocal ? 3 : 4;
    camera.fx = params[0];
    camera.fy = m->oneFocal ? params[0] : params[1];
    camera.cx = params[pinhole - 2];
    camera.cy = params[pinhole - 1];
    for (size_t i = 0; i < m->coefficientSlots.size(); ++i)
        *coefficient(camera.distortion, m->coefficientSlots[i]) = params[pinhole + i];
    return true;
}

std::vector<double> lensParameters(const std::string& modelName, const LensCamera& camera) {
    const ModelLayout* m = findLayout(modelName);
    if (!m) return {};
    std::vector<double> params = m->oneFocal ? std::vector<double>{camera.fx, camera.cx, camera.cy}
                                             : std::vector<double>{camera.fx, camera.fy, camera.cx, camera.cy};
    LensDistortion d = camera.distortion;
    for (int slot : m->coefficientSlots) params.push_back(*coefficient(d, slot));
    return params;
}

void distortNormalised(const LensDistortion& d, double x, double y, double& xd, double& yd) {
    const double r2 = x * x + y * y;
    double radial, unused;
    radialFactor(d, r2, radial, unused);
    xd = x * radial + 2.0 * d.p1 * x * y + d.p2 * (r2 + 2.0 * x * x);
    yd = y * radial + d.p1 * (r2 + 2.0 * y * y) + 2.0 * d.p2 * x * y;
}

bool undistortNormalised(const LensDistortion& d, double xd, double yd, double& x, double& y) {
    x = xd, y = yd;
    for (int iteration = 0; iteration < 50; ++iteration) {
        const double r2 = x * x + y * y;
        double radial, radialDerivative;
        radialFactor(d, r2, radial, radialDerivative);
        double fx, fy;
        distortNormalised(d, x, y, fx, fy);
        fx -= xd, fy -= yd;
        if (std::abs(fx) < 1e-15 && std::abs(fy) < 1e-15) return denominatorPositive(d, r2);
        // The Jacobian of (xd, yd) with respect to (x, y).
        const double a = radial + 2.0 * x * x * radialDerivative + 2.0 * d.p1 * y + 6.0 * d.p2 * x;
        const double b = 2.0 * x * y * radialDerivative + 2.0 * d.p1 * x + 2.0 * d.p2 * y;
        const double c = b;
        const double e = radial + 2.0 * y * y * radialDerivative + 6.0 * d.p1 * y + 2.0 * d.p2 * x;
        const double det = a * e - b * c;
        if (!(std::abs(det) > 1e-12)) return false;
        x -= (e * fx - b * fy) / det;
        y -= (a * fy - c * fx) / det;
        if (!std::isfinite(x) || !std::isfinite(y)) return false;
    }
    double fx, fy;
    distortNormalised(d, x, y, fx, fy);
    return std::abs(fx - xd) < 1e-9 && std::abs(fy - yd) < 1e-9 && denominatorPositive(d, x * x + y * y);
}

double foldRadius(const LensDistortion& d) {
    constexpr double kStep = 1e-3, kLimit = 20.0;
    for (int i = 1; i * kStep <= kLimit; ++i) {
        const double r = i * kStep, r2 = r * r;
        double radial, radialDerivative;
        if (!denominatorPositive(d, r2)) return r - kStep;
        radialFactor(d, r2, radial, radialDerivative);
        // d(r radial)/dr = radial + 2 r2 radial'
        if (!(radial + 2.0 * r2 * radialDerivative > 0.0)) return r - kStep;
    }
    return kLimit;
}

double foldDistortedRadius(const LensDistortion& d) {
    const double r = foldRadius(d);
    double radial, unused;
    radialFactor(d, r * r, radial, unused);
    return r * radial;
}

}  // namespace tessaline_tools
