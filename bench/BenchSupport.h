#pragma once

// What the in-process benchmarks share: a run that does not depend on who
// starts it, and the median of the counted runs.

#include <QList>
#include <QTemporaryDir>

#include <algorithm>

// No user settings, no developer trees, no debug lines, the bundle's own
// profiler; the product root is <scratch>/Oktavo.
inline void isolateBenchEnvironment(const QTemporaryDir& scratch)
{
    qputenv("HOME", scratch.path().toLocal8Bit());
    qputenv("XDG_RUNTIME_DIR", scratch.path().toLocal8Bit());
    qputenv("VLUM_PRODUCT_ROOT", scratch.filePath(QStringLiteral("Oktavo")).toLocal8Bit());
    for (const char* name : {"VLUMTREE", "VWSTREE", "VLUM_SYSTEM_PROFILER", "VLUMINSTALLER_DEBUG_LOG"})
        qunsetenv(name);
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

inline double median(QList<double> ms)
{
    std::sort(ms.begin(), ms.end());
    const int n = ms.size();
    return n % 2 ? ms[n / 2] : (ms[n / 2 - 1] + ms[n / 2]) / 2;
}
