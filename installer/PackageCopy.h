#pragma once

// The installer's own copy of the package. The package file belongs to
// whoever downloaded it, who could rewrite it between the signature check
// and the unpacking; so its bytes are copied once into an anonymous memory
// file that nobody else holds, sealed against any change, and everything
// after works on that copy.

#include <string>
#include <string_view>

class PackageCopy
{
public:
    // From the descriptor in VLUM_PACKAGE_FD when set (the helper opened
    // and checked the file), else from `path`, opened without following a
    // link. Either must be a regular file. Throws Refused.
    static PackageCopy take(const std::string& path);

    PackageCopy(PackageCopy&& other) noexcept;
    PackageCopy& operator=(PackageCopy&&) = delete;
    ~PackageCopy();

    std::string_view bytes() const { return {static_cast<const char*>(map), size}; }

private:
    PackageCopy(int memory, void* map, size_t size) : memory(memory), map(map), size(size) {}
    static PackageCopy copyFrom(int source, const std::string& path);

    int memory = -1;
    void* map = nullptr;
    size_t size = 0;
};
