#include "PackageIndex.h"

#include "Limits.h"
#include "Record.h"
#include "Refused.h"

#include <QByteArray>
#include <QXmlStreamReader>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::string_view kTag = "velluma-pkg-index-1\n";
// type, mode, size, sha256 and the two lengths.
constexpr size_t kFixedRowBytes = 1 + 2 + 8 + 32 + 2 + 2;

// <pkg-info identifier=".." version=".."/>, as on macOS.
void readPackageInfo(std::string_view text, PackageIndex& index)
{
    QXmlStreamReader xml(QByteArray::fromRawData(text.data(), int(text.size())));
    const bool element = xml.readNextStartElement();
    const QString name = xml.qualifiedName().toString();
    const QString identifier = xml.attributes().value(QLatin1String("identifier")).toString();
    const QString version = xml.attributes().value(QLatin1String("version")).toString();
    while (!xml.atEnd())
        xml.readNext();
    if (xml.hasError())
        throw Refused("unreadable PackageInfo: " + xml.errorString().toStdString());
    if (!element || name != QLatin1String("pkg-info") || identifier.isEmpty() || version.isEmpty())
        throw Refused("PackageInfo needs <pkg-info identifier=\"..\" version=\"..\"/>");
    index.identifier = identifier.toStdString();
    index.version = version.toStdString();
}

EntryType typeOf(char code)
{
    switch (code) {
    case 'f':
        return EntryType::File;
    case 'd':
        return EntryType::Folder;
    case 'l':
        return EntryType::Symlink;
    case 'h':
        return EntryType::Hardlink;
    default:
        return EntryType::Other;
    }
}

// A path in the plain form the installer acts on; refused otherwise,
// with normalizedName's reasons first.
void checkPath(std::string_view path, const char* what)
{
    if (normalizedName(path) != path || path.empty())
        throw Refused("malformed index: " + std::string(what) + " not in plain form: " + std::string(path));
}

} // namespace

PackageIndex PackageIndex::parse(std::vector<char> bytes)
{
    PackageIndex index;
    index.bytes = std::move(bytes);
    RecordReader cursor(index.bytes, "index");
    const auto malformed = [&cursor](const std::string& why) { cursor.malformed(why); };
    if (cursor.take(std::min(cursor.left(), kTag.size())) != kTag)
        malformed("not the layout this installer reads");
    const std::uint64_t infoBytes = cursor.number(4);
    if (infoBytes > limits::kPackageInfoBytes)
        throw Refused("PackageInfo is larger than 64 KiB");
    index.info = cursor.take(size_t(infoBytes));
    readPackageInfo(index.info, index);

    const std::uint64_t count = cursor.number(4);
    if (count > limits::kEntries)
        throw Refused("the package has more than 1000000 entries");
    index.rows.reserve(std::min<std::uint64_t>(count, cursor.left() / kFixedRowBytes));
    std::uint64_t nameBytes = 0;
    static const unsigned char noDigest[32] = {};
    for (std::uint64_t i = 0; i < count; ++i) {
        IndexRow row;
        const char code = cursor.take(1).front();
        row.type = typeOf(code);
        row.mode = unsigned(cursor.number(2));
        row.size = cursor.number(8);
        row.sha256 = reinterpret_cast<const unsigned char*>(cursor.take(32).data());
        row.path = cursor.take(size_t(cursor.number(2)));
        row.link = cursor.take(size_t(cursor.number(2)));
        nameBytes += row.path.size() + row.link.size();
        if (nameBytes > limits::kNameBytes)
            throw Refused("the package's names take more than 32 MiB");

        checkPath(row.path, "entry name");
        const std::string shown(row.path);
        // No archive name or link holds one; the system would cut there.
        if (row.path.find('\0') != std::string_view::npos || row.link.find('\0') != std::string_view::npos)
            malformed("a NUL byte in the entry " + shown);
        if (row.type == EntryType::Other)
            throw Refused("unsupported entry type: " + shown);
        if (row.mode > 07777)
            malformed("the mode of " + shown + " has more than permission bits");
        if (row.type != EntryType::File && row.size != 0)
            throw Refused("entry " + shown + " holds data but is not a file");
        if (row.type != EntryType::File && std::memcmp(row.sha256, noDigest, sizeof noDigest) != 0)
            malformed("entry " + shown + " has a digest but is not a file");
        if (row.type == EntryType::Symlink && (row.link.empty() || row.link.size() > limits::kPathBytes))
            throw Refused("link " + shown + " has no target, or one longer than 4096 bytes");
        if (row.type == EntryType::Hardlink)
            checkPath(row.link, "hard link target");
        if ((row.type == EntryType::File || row.type == EntryType::Folder) && !row.link.empty())
            malformed("entry " + shown + " has a link target but is not a link");
        if (row.type == EntryType::File) {
            index.fileBytes += row.size;
            if (row.size > limits::kUnpackedBytes || index.fileBytes > limits::kUnpackedBytes)
                throw Refused("the package unpacks to more than 64 GiB");
        }
        index.rows.push_back(row);
    }
    if (cursor.left() != 0)
        malformed("bytes after its last row");
    return index;
}

std::vector<char> PackageIndex::compose(std::string_view info, const std::vector<IndexRow>& rows)
{
    static const unsigned char noDigest[32] = {};
    RecordWriter out;
    out.bytes(kTag);
    out.text(info, 4);
    out.number(rows.size(), 4);
    for (const IndexRow& row : rows) {
        out.bytes(std::string_view(row.type == EntryType::File ? "f"
                                   : row.type == EntryType::Folder ? "d"
                                   : row.type == EntryType::Symlink ? "l" : "h", 1));
        out.number(row.mode, 2);
        out.number(row.size, 8);
        out.bytes(std::string_view(reinterpret_cast<const char*>(row.sha256 ? row.sha256 : noDigest), 32));
        out.text(row.path, 2);
        out.text(row.link, 2);
    }
    return std::move(out.out);
}
