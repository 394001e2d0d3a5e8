// Software triggers from a person: each line on standard input is one.
#pragma once

namespace tool {

/// Counts lines on a file descriptor without ever waiting for them. Used from one thread.
class LineTrigger {
public:
    explicit LineTrigger(int descriptor) : input(descriptor) {}

    /// Takes one line if one is there.
    bool take();
    /// True when the input has ended and all lines were taken.
    bool ended() const { return atEnd && lines == 0; }

private:
    void readWhatIsThere();

    const int input;
    unsigned long lines = 0;
    bool atEnd = false;
};

} // namespace tool
