#include "Refused.h"

#include <cstring>

std::string withSystemError(const std::string& what, int error)
{
    return what + ": " + std::strerror(error);
}
