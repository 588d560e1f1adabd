#pragma once

// The installer's books for an administrator: the queries and the removal
// CommandLine.h lists, answered on standard output, one item a line
// (names escaped as every output line is). Returns the exit status: 0, or
// 1 when -verify finds a path missing or changed. Throws Refused.

#include "CommandLine.h"

int answer(const CommandLine& line);
