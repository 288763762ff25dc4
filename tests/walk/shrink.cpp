// Halves, quarters, ... single steps are left out in turn, until no single one can be.
#include "tests/walk/shrink.h"

#include <algorithm>
#include <cstdlib>

namespace kestra::walk {

std::string textOfSteps(const std::vector<size_t>& steps) {
    std::string text;
    for (size_t i = 0; i < steps.size();) {
        size_t last = i;
        while (last + 1 < steps.size() && steps[last + 1] == steps[last] + 1)
            ++last;
        if (!text.empty()) text += ',';
        text += std::to_string(steps[i]);
        if (last != i) text += '-' + std::to_string(steps[last]);
        i = last + 1;
    }
    return text;
}

std::vector<size_t> stepsFromText(const std::string& text) {
    std::vector<size_t> steps;
    for (const char* at = text.c_str(); *at >= '0' && *at <= '9';) {
        char* end = nullptr;
        const size_t first = std::strtoul(at, &end, 10);
        const size_t last = *end == '-' ? std::strtoul(end + 1, &end, 10) : first;
        for (size_t i = first; i <= last; ++i)
            steps.push_back(i);
        at = *end == ',' ? end + 1 : end;
    }
    return steps;
}

std::vector<size_t> shrink(std::vector<size_t> steps, const std::function<bool(const std::vector<size_t>&)>& fails,
                           const std::function<bool()>& goesOn) {
    for (size_t piece = std::max<size_t>(steps.size() / 2, 1);;) {
        bool shorter = false;
        for (size_t at = 0; at < steps.size() && goesOn();) {
            std::vector<size_t> without(steps);
            without.erase(without.begin() + static_cast<ptrdiff_t>(at),
                          without.begin() + static_cast<ptrdiff_t>(std::min(at + piece, steps.size())));
            if (fails(without)) {
                steps = std::move(without);
                shorter = true;
            } else {
                at += piece;
            }
        }
        if (!goesOn() || (piece == 1 && !shorter)) return steps;
        if (piece > 1) piece /= 2;
    }
}

} // namespace kestra::walk
