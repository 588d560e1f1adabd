#pragma once

// For suites that need the real application object: it gets a clean home
// folder (so no user settings leak in) and the given options; the test
// runner keeps the process's own arguments.

#include "DlrApp.h"

#include <QTemporaryDir>
#include <QtTest>

#include <vector>

template <typename TestClass>
int runWithDlrApp(int argc, char** argv, std::vector<const char*> options)
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    qunsetenv("VLUMINSTALLER_DEBUG_LOG");
    // Tests talk to servers on loopback, never through the machine's proxy.
    for (const char* proxy : {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                              "ALL_PROXY", "NO_PROXY"})
        qunsetenv(proxy);

    // The application object may reorder its arguments, so it gets copies.
    options.insert(options.begin(), argv[0]);
    std::vector<QByteArray> storage(options.begin(), options.end());
    std::vector<char*> appArgs;
    for (QByteArray& arg : storage)
        appArgs.push_back(arg.data());
    int appArgc = int(appArgs.size());
    appArgs.push_back(nullptr);

    DlrApp app(appArgc, appArgs.data());
    TestClass test;
    return QTest::qExec(&test, argc, argv);
}
