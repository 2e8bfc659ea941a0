// Runs the iterations of a call whose launches repeat unchanged: on a
// backend with graphs the first iteration is recorded and every iteration
// replayed as one launch; elsewhere, when the recording fails, or when the
// run context turns graphs off (for a profile of every kernel), the
// launches are issued directly each time.
#pragma once

#include <type_traits>

namespace tessaline {

// The backend's graph type, or an empty one where it has none.
template <class Backend, class = void>
struct GraphOf {
    struct type {};
};
template <class Backend>
struct GraphOf<Backend, std::void_t<typename Backend::Graph>> {
    using type = typename Backend::Graph;
};

template <class Backend>
class IterationReplay {
   public:
    IterationReplay(Backend& be, bool wanted) : be_(be), wanted_(wanted && be.device().context.graphs) {}

    template <class Issue>
    void run(const Issue& issue) {
        if constexpr (Backend::kHasGraphs) {
            if (graph_.ready()) return be_.replay(graph_);
            if (wanted_) {
                wanted_ = false;  // one attempt per call
                if (be_.beginCapture()) {
                    issue();
                    if (be_.endCapture(graph_)) return be_.replay(graph_);
                }
            }
        }
        issue();
    }

   private:
    Backend& be_;
    bool wanted_;
    typename GraphOf<Backend>::type graph_;
};

}  // namespace tessaline
