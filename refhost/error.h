// The one exception of the reference host's own layer.
#pragma once

#include <stdexcept>

namespace refhost {

/// A request that could not be met. `what()` is one line for people that says what to do. It never crosses the
/// boundary to the plug-in.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace refhost
