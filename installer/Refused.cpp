#include "Refused.h"

#include <cstring>

std::string withSystemError(const std::string& what, int error)
{
    return what + ": " + std::strerror(error);
}

void refuse(int error, const char* what, const std::string& name)
{
    throw Refused(withSystemError(what + name, error));
}
