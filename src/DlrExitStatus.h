#pragma once

// The process's exit statuses: the wizard's pages end the event loop with
// the first two and the last; the run without a window with the first six,
// as its usage text lists them.
enum DlrExitStatus : int {
    // The wizard: closed or finished, nothing ticked, a download that could
    // not start. Without a window: everything chosen installed, or nothing
    // to do.
    DlrExitNormal = 0,
    DlrExitNoProductList = 1,
    DlrExitNoSpace = 2,
    DlrExitDownloadFailed = 3, // after its retries
    DlrExitInstallFailed = 4,  // or packages were downloaded only
    DlrExitBadRequest = 5,     // an unknown option or product name, a cafile without a certificate
    // The user gave up after a failure (255 as the shell sees it).
    DlrExitGaveUp = -1,
};
