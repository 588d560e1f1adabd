#pragma once

// Why an installation cannot go on. The text is the failure line's reason
// (InstallerOutput::kFailure); names in it may hold any byte, since the output
// escapes control characters.

#include <stdexcept>
#include <string>

class Refused : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// "<what>: <the system's text for error>".
std::string withSystemError(const std::string& what, int error);

// Throws Refused with "<what><name>: <the system's text for error>". The
// message is put together here, once, rather than at every failing call.
[[noreturn]] void refuse(int error, const char* what, const std::string& name = std::string());
