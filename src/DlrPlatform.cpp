#include "DlrPlatform.h"

QString DlrPlatform::fromEnvironment(const char* name, const QString& fallback)
{
    const QString value = qEnvironmentVariable(name);
    return value.isEmpty() ? fallback : value;
}
