#pragma once

#include <QString>

// A byte count for display: 512b, 1.500KB, 1.50MB, 2.000GB.
QString DlrHumanBytes(qint64 bytes);
