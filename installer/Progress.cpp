#include "Progress.h"

#include "InstallerOutput.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

std::string printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\\')
            out += "\\\\";
        else if (byte < 0x20 || byte == 0x7f) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            out += escaped;
        } else
            out += c;
    }
    return out;
}

double Progress::paceFromEnvironment()
{
    const char* value = std::getenv("VLUM_INSTALLER_PACE");
    if (!value || !*value)
        return 0;
    char* end = nullptr;
    const double seconds = std::strtod(value, &end);
    if (*end != '\0' || !std::isfinite(seconds))
        return 0;
    return std::fmax(0.0, std::fmin(seconds, 5.0));
}

void Progress::say(std::string_view line) const
{
    // Nobody may be reading any more (the wizard went away): the
    // installation goes on regardless, so write errors are ignored.
    const std::string text = printable(line) + '\n';
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += size_t(n);
    }
}

void Progress::phase(std::string_view text) const
{
    say(std::string(InstallerOutput::kLead) + InstallerOutput::kPhase + std::string(text));
}

void Progress::status(std::string_view text) const
{
    say(std::string(InstallerOutput::kLead) + InstallerOutput::kStatus + std::string(text));
}

void Progress::warning(std::string_view text) const
{
    status(InstallerOutput::kWarning + std::string(text));
}

void Progress::note(std::string_view text) const
{
    say(std::string(InstallerOutput::kLead) + InstallerOutput::kNote + std::string(text));
}

void Progress::succeeded() const
{
    say(InstallerOutput::kSuccess);
}

void Progress::failed(std::string_view why) const
{
    say(InstallerOutput::kFailure + std::string(why));
}

void Progress::percent(double value) const
{
    char line[64];
    std::snprintf(line, sizeof line, "%.1f", value);
    say(std::string(InstallerOutput::kLead) + InstallerOutput::kPercent + line);
    if (pace > 0) {
        timespec wait{time_t(pace), long((pace - std::floor(pace)) * 1e9)};
        while (::nanosleep(&wait, &wait) != 0 && errno == EINTR) {
        }
    }
}
