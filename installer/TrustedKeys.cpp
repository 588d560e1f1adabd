#include "TrustedKeys.h"

#include "Descriptor.h"
#include "Limits.h"
#include "Refused.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kDefaultFolder[] = "/etc/velluma/trusted-keys";

// Owned by root or by us, and writable by neither group nor others.
bool safelyOwned(const struct stat& info)
{
    return (info.st_uid == 0 || info.st_uid == ::geteuid()) && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string readKeyFile(int folder, const std::string& name, const std::string& path)
{
    const Descriptor fd(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid())
        refuse(errno, "cannot read the trusted key ", path);
    struct stat info;
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || std::uint64_t(info.st_size) > limits::kKeyFileBytes)
        throw Refused("the trusted key " + path + " is not a small regular file");
    if (!safelyOwned(info))
        throw Refused("the trusted key " + path + " must belong to root and be writable by no one else");
    std::string text(size_t(info.st_size), '\0');
    if (!readExactly(fd.get(), text.data(), text.size()))
        refuse(errno, "cannot read the trusted key ", path);
    return text;
}

} // namespace

std::string TrustedKeys::folderFromEnvironment()
{
    const char* folder = std::getenv("VLUM_TRUSTED_KEYS");
    return folder && *folder ? folder : kDefaultFolder;
}

TrustedKeys TrustedKeys::load(const std::string& folder)
{
    TrustedKeys trusted;
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT)
        return trusted;
    if (fd < 0)
        refuse(errno, "cannot read the trusted keys folder ", folder);
    DIR* listing = ::fdopendir(fd);
    if (!listing) {
        ::close(fd);
        refuse(errno, "cannot read the trusted keys folder ", folder);
    }
    std::unique_ptr<DIR, int (*)(DIR*)> closer(listing, ::closedir);
    struct stat info;
    if (::fstat(fd, &info) != 0 || !safelyOwned(info))
        throw Refused("the trusted keys folder " + folder + " must belong to root and be writable by no one else");

    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name[0] != '.' && name.compare(name.size() - 4, 4, ".pem") == 0)
            names.push_back(name);
    }
    if (errno != 0)
        refuse(errno, "cannot read the trusted keys folder ", folder);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string path = folder + '/' + name;
        trusted.add(path, readKeyFile(fd, name, path));
    }
    return trusted;
}

void TrustedKeys::add(const std::string& file, const std::string& pem)
{
    std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new_mem_buf(pem.data(), int(pem.size())), BIO_free);
    std::shared_ptr<EVP_PKEY> key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr,
                                  EVP_PKEY_free);
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_ED25519)
        throw Refused("the trusted key " + file + " is not an Ed25519 public key in PEM form");
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key.get(), &der);
    if (length <= 0)
        throw Refused("the trusted key " + file + " cannot be encoded");
    TrustedKey trusted{file, {}, key};
    const bool hashed = EVP_Digest(der, size_t(length), trusted.id.data(), nullptr, EVP_sha256(), nullptr) == 1;
    OPENSSL_free(der);
    if (!hashed)
        throw Refused("the trusted key " + file + " cannot be hashed");
    keys.push_back(std::move(trusted));
}

const TrustedKey* TrustedKeys::find(const KeyId& id) const
{
    for (const TrustedKey& key : keys)
        if (key.id == id)
            return &key;
    return nullptr;
}
