#pragma once

// The installer's output: one line per event on standard output, read line
// by line by the wizard (through the helper), in the words of
// InstallerOutput.h. Every line is written through printable(), so a name
// holding a newline cannot start a line of its own.

#include <string>
#include <string_view>

// Control characters and backslashes escaped: "\n", "\t", "\r", "\\",
// others as "\xNN". Other bytes, UTF-8 included, pass as they are.
std::string printable(std::string_view text);

class Progress
{
public:
    // VLUM_INSTALLER_PACE: seconds to pause after each percentage, 0 to 5;
    // anything unreadable counts as 0.
    static double paceFromEnvironment();

    explicit Progress(double paceSeconds) : pace(paceSeconds) {}

    void phase(std::string_view text) const;
    void status(std::string_view text) const;
    // A status line the unattended run reports as a warning of its own.
    void warning(std::string_view text) const;
    // A fact about the package: its name, the base path.
    void note(std::string_view text) const;
    // "installer:%<value with one decimal>", then the pause.
    void percent(double value) const;
    // The last line: the installation is done, or why it is not.
    void succeeded() const;
    void failed(std::string_view why) const;

private:
    void say(std::string_view line) const;

    double pace;
};

// The ellipsis the wizard's progress texts end with.
constexpr char kEllipsis[] = "\xe2\x80\xa6";
