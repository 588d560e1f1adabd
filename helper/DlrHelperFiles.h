#pragma once

#include <QByteArray>
#include <QString>

#include <sys/types.h>

// How the helper, running as root, opens files on behalf of a user: what
// it checks is what it hands on, as an open descriptor, never a path to be
// opened again. Both return a descriptor (close-on-exec), or -1 with `why`.
namespace DlrHelperFiles {

// A package the user asks to have installed. Every folder on the way and
// the file itself belong to root or to `uid` and nobody else can write to
// them (a folder writable by others only when sticky, like /tmp); links on
// the way are followed only when root or `uid` own them. The file must be
// a regular file with a single name. Opened read-only, never blocking.
int OpenPackage(const QByteArray& path, uid_t uid, QString& why);

// `relative` resolved beneath the open folder `folder` in one step: no
// "..", no links, no magic links on the way. Only regular files come back
// (a FIFO or device is refused without blocking); a new file gets at most
// the 0777 bits of `mode`.
int OpenBeneath(int folder, const QByteArray& relative, int flags, mode_t mode, QString& why);

} // namespace DlrHelperFiles
