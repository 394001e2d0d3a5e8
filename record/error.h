// What goes wrong between a frame and its file.
#pragma once

#include <stdexcept>

namespace record {

/// The output cannot be written. `what()` is one line for people.
class OutputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// There is a file of that name already, and it may not be replaced.
class OutputExists : public OutputError {
public:
    using OutputError::OutputError;
};

/// A frame is not what the series promised: another size, or another type of pixel.
class FrameError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace record
