#pragma once

// The package installer's output, one event per line: written by the
// installer (Progress), read by the wizard (DlrInstallerLine). Plain C++,
// so that both sides spell it from here.

namespace InstallerOutput {

// Every line begins with the lead; what follows it says what the line is.
constexpr char kLead[] = "installer:";
constexpr char kPhase[] = "PHASE:";   // a step of the installation
constexpr char kStatus[] = "STATUS:"; // what is being done now
constexpr char kPercent[] = "%";      // the percentage done, one decimal
// A status the unattended run reports as a warning of its own.
constexpr char kWarning[] = "Warning: ";
// Facts about the package (its name, the base path) follow the lead and a
// space, as the verdicts below do.
constexpr char kNote[] = " ";

// The last line of a run: one or the other. The reason follows kFailure.
constexpr char kSuccess[] = "installer: The install was successful.";
constexpr char kFailure[] = "installer: Error - ";

} // namespace InstallerOutput
