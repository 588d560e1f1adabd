#include "DlrdMessage.h"

#include <fcntl.h>
#include <unistd.h>

DlrdDescriptor::~DlrdDescriptor()
{
    if (fd >= 0)
        ::close(fd);
}

void DlrdMessage::SetInt64(const QByteArray& key, qint64 value)
{
    Value v;
    v.kind = Int64Kind;
    v.integer = value;
    values.insert(key, v);
}

void DlrdMessage::SetString(const QByteArray& key, const QByteArray& value)
{
    Value v;
    v.kind = StringKind;
    v.text = value;
    values.insert(key, v);
}

void DlrdMessage::SetStringArray(const QByteArray& key, const QList<QByteArray>& value)
{
    Value v;
    v.kind = StringArrayKind;
    v.texts = value;
    values.insert(key, v);
}

bool DlrdMessage::SetDescriptor(const QByteArray& key, int fd)
{
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        return false;
    AdoptDescriptor(key, std::make_shared<const DlrdDescriptor>(copy));
    return true;
}

void DlrdMessage::AdoptDescriptor(const QByteArray& key, std::shared_ptr<const DlrdDescriptor> descriptor)
{
    Value v;
    v.kind = DescriptorKind;
    v.descriptor = std::move(descriptor);
    values.insert(key, v);
}

const DlrdMessage::Value* DlrdMessage::find(const QByteArray& key, Kind kind) const
{
    const auto it = values.constFind(key);
    return it != values.constEnd() && it->kind == kind ? &*it : nullptr;
}

bool DlrdMessage::Has(const QByteArray& key, Kind kind) const
{
    return find(key, kind) != nullptr;
}

qint64 DlrdMessage::Int64(const QByteArray& key) const
{
    const Value* v = find(key, Int64Kind);
    return v ? v->integer : 0;
}

const QByteArray* DlrdMessage::String(const QByteArray& key) const
{
    const Value* v = find(key, StringKind);
    return v ? &v->text : nullptr;
}

QList<QByteArray> DlrdMessage::StringArray(const QByteArray& key) const
{
    const Value* v = find(key, StringArrayKind);
    return v ? v->texts : QList<QByteArray>();
}

int DlrdMessage::DupDescriptor(const QByteArray& key) const
{
    const Value* v = find(key, DescriptorKind);
    if (!v || !v->descriptor)
        return -1;
    return ::fcntl(v->descriptor->fd, F_DUPFD_CLOEXEC, 0);
}
