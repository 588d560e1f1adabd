#pragma once

// Bounds on what a package may ask of the machine. They are far above any
// real product (the largest ships a few GB in some ten thousand files) and
// keep a hostile archive, a decompression bomb above all, from filling the
// memory or the disk; a package over one is refused before anything is
// written. The target's free space is checked as well (Installation.cpp).

#include <cstdint>

namespace limits {

// The compressed package, copied into memory once (PackageCopy).
constexpr std::uint64_t kPackageBytes = 4ull << 30;
// Entries in the archive, and the bytes of their names and link targets
// together: what the checks keep in memory.
constexpr std::uint64_t kEntries = 1000000;
constexpr std::uint64_t kNameBytes = 128ull << 20;
// One name or link target, one component of a name, and how deep a path goes
// (each level holds a descriptor while the tree is moved into place).
constexpr std::uint64_t kPathBytes = 4096;
constexpr std::uint64_t kComponentBytes = 255;
constexpr std::uint64_t kPathDepth = 128;
// Everything the payload unpacks to.
constexpr std::uint64_t kUnpackedBytes = 64ull << 30;
// The two members read into memory whole.
constexpr std::uint64_t kPackageInfoBytes = 64 << 10;
constexpr std::uint64_t kSignatureBytes = 4096;
// A trusted key's PEM file.
constexpr std::uint64_t kKeyFileBytes = 64 << 10;
// Steps spent following the package's links into each other.
constexpr std::uint64_t kLinkSteps = 10000000;

} // namespace limits
