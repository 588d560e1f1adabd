#pragma once

// Bounds on what a package may ask of the machine. They are far above any
// real product (the largest ships a few GB in some ten thousand files) and
// keep a hostile package from filling the memory or the disk. The index
// bounds are checked before anything else is read, the unpacked size
// before anything is written; the target's free space is checked as well
// (Installation.cpp). The package itself may be of any size: it is read as
// a stream, in flat memory.

#include <cstdint>

namespace limits {

// The index, the one part of a package held in memory whole (read before
// its signature is checked), and the signature member.
constexpr std::uint64_t kIndexBytes = 64ull << 20;
constexpr std::uint64_t kSignatureBytes = 4096;
// Rows of the index, and the bytes of their paths and link targets
// together; PackageInfo's text within it.
constexpr std::uint64_t kEntries = 1000000;
constexpr std::uint64_t kNameBytes = 32ull << 20;
constexpr std::uint64_t kPackageInfoBytes = 64 << 10;
// One name or link target, one component of a name, and how deep a path goes
// (each level holds a descriptor while the tree is moved into place).
constexpr std::uint64_t kPathBytes = 4096;
constexpr std::uint64_t kComponentBytes = 255;
constexpr std::uint64_t kPathDepth = 128;
// Everything the payload unpacks to.
constexpr std::uint64_t kUnpackedBytes = 64ull << 30;
// A trusted key's PEM file.
constexpr std::uint64_t kKeyFileBytes = 64 << 10;
// Steps spent following the package's links into each other.
constexpr std::uint64_t kLinkSteps = 10000000;

} // namespace limits
