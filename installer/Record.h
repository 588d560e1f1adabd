#pragma once

// The installer's binary records (the package index, receipts, the
// journal): fixed-size big-endian numbers and length-prefixed bytes, read
// with every length checked against what is left.

#include "Refused.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class RecordReader
{
public:
    // `what` names the record in messages: "malformed <what>: ...".
    RecordReader(const std::vector<char>& bytes, std::string what)
        : at(bytes.data()), end(bytes.data() + bytes.size()), what(std::move(what))
    {
    }

    size_t left() const { return size_t(end - at); }
    std::string_view take(size_t size)
    {
        if (size > left())
            malformed("it ends in the middle of a field");
        const std::string_view taken(at, size);
        at += size;
        return taken;
    }
    std::uint64_t number(int bytes)
    {
        std::uint64_t value = 0;
        for (const char byte : take(size_t(bytes)))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    }
    // A `lengthBytes`-byte length, then that many bytes.
    std::string_view text(int lengthBytes) { return take(size_t(number(lengthBytes))); }

    [[noreturn]] void malformed(const std::string& why) const { throw Refused("malformed " + what + ": " + why); }

private:
    const char* at;
    const char* end;
    std::string what;
};

class RecordWriter
{
public:
    void bytes(std::string_view data) { out.insert(out.end(), data.begin(), data.end()); }
    void number(std::uint64_t value, int bytes)
    {
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
            out.push_back(char(value >> shift & 0xff));
    }
    void text(std::string_view data, int lengthBytes)
    {
        number(data.size(), lengthBytes);
        bytes(data);
    }

    std::vector<char> out;
};
