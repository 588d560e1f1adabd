#include "PackageReader.h"

#include "Limits.h"
#include "PayloadTree.h"
#include "Refused.h"
#include "Signature.h"

#include <QByteArray>
#include <QXmlStreamReader>

#include <optional>

namespace {

constexpr char kPayload[] = "Payload";
constexpr char kPackageInfo[] = "PackageInfo";

// <pkg-info identifier=".." version=".."/>, as on macOS.
void readPackageInfo(const std::string& text, PackageContents& contents)
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
    contents.identifier = identifier.toStdString();
    contents.version = version.toStdString();
}

} // namespace

PackageContents readPackage(std::string_view bytes, const TrustedKeys& keys, const std::string& packageName)
{
    PackageContents contents;
    ArchiveReader archive(bytes, packageName);
    PackageDigest digest;
    PayloadTree tree;
    std::optional<std::string> info;
    std::optional<std::string> signature;
    std::uint64_t entries = 0;
    std::uint64_t nameBytes = 0;
    std::uint64_t unpacked = 0;
    std::vector<char> buffer(1 << 16);

    ArchiveEntry entry;
    while (archive.next(entry)) {
        if (++entries > limits::kEntries)
            throw Refused("the package has more than 1000000 entries");
        nameBytes += entry.name.size() + entry.link.size();
        if (nameBytes > limits::kNameBytes)
            throw Refused("the package's names take more than 128 MiB");

        std::string* kept = nullptr;
        if (entry.path == kSignatureMember) {
            if (signature || entry.type != EntryType::File || entry.size > limits::kSignatureBytes)
                throw Refused("malformed signature: the member is not one small file");
            kept = &signature.emplace();
        } else {
            if (entry.type == EntryType::Other)
                throw Refused("unsupported entry type: " + entry.name);
            if (entry.type != EntryType::File && entry.size != 0)
                throw Refused("entry " + entry.name + " holds data but is not a file");
            if (entry.type == EntryType::File) {
                unpacked += entry.size;
                if (unpacked > limits::kUnpackedBytes)
                    throw Refused("the package unpacks to more than 64 GiB");
            }
            if (entry.path == kPackageInfo && entry.type == EntryType::File) {
                if (info || entry.size > limits::kPackageInfoBytes)
                    throw Refused("PackageInfo is not one file of at most 64 KiB");
                kept = &info.emplace();
            }
            digest.entry(entry);
        }

        std::uint64_t got = 0;
        while (const size_t n = archive.read(buffer.data(), buffer.size())) {
            got += n;
            if (got > entry.size)
                break;
            if (kept)
                kept->append(buffer.data(), n);
            if (entry.path != kSignatureMember)
                digest.content(buffer.data(), n);
        }
        if (got != entry.size)
            throw Refused("entry " + entry.name + " does not hold the size it claims");

        if (entry.path == kPayload) {
            if (entry.type != EntryType::Folder)
                throw Refused("Payload is not a folder");
        } else if (inPayload(entry.path)) {
            tree.add(entry, entry.path.substr(kPayloadFolder.size()));
            contents.payload.push_back(entry);
            contents.fileBytes += entry.type == EntryType::File ? entry.size : 0;
        }
    }
    if (!info)
        throw Refused("no PackageInfo in " + packageName);
    tree.checkLinks();
    contents.digest = digest.finish();
    if (!keys.empty())
        contents.signer = checkSignature(contents.digest, signature, keys).file;
    readPackageInfo(*info, contents);
    contents.folders = tree.folders();
    return contents;
}
