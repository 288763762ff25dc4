// Shortens a walk that fails: leaves steps out as long as it fails without them. Portable.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kestra::walk {

/// Steps as text and back: "0,2-5".
std::string textOfSteps(const std::vector<size_t>& steps);
std::vector<size_t> stepsFromText(const std::string& text);

/// @param steps     of the whole walk
/// @param fails     walks these steps; a walk of several threads does not fail every time, so it may walk more than
/// once
/// @param goesOn    false ends the search where it is
/// @return the steps that are left; each of them is needed, if the search came to its end
std::vector<size_t> shrink(std::vector<size_t> steps, const std::function<bool(const std::vector<size_t>&)>& fails,
                           const std::function<bool()>& goesOn);

} // namespace kestra::walk
