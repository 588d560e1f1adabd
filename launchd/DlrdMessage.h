#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>

#include <memory>

// A descriptor that closes itself; messages share it when they are copied.
class DlrdDescriptor
{
public:
    explicit DlrdDescriptor(int fd) : fd(fd) {}
    ~DlrdDescriptor();
    DlrdDescriptor(const DlrdDescriptor&) = delete;
    DlrdDescriptor& operator=(const DlrdDescriptor&) = delete;

    const int fd;
};

// One message between the wizard and its helper: a dictionary whose values
// are 64-bit integers, strings, arrays of strings or file descriptors.
// Descriptors put in are duplicated and taken out as duplicates, so the
// message always owns its own copies.
class DlrdMessage
{
public:
    enum Kind { Int64Kind = 1, StringKind = 2, StringArrayKind = 3, DescriptorKind = 4 };

    void SetInt64(const QByteArray& key, qint64 value);
    void SetString(const QByteArray& key, const QByteArray& value);
    void SetStringArray(const QByteArray& key, const QList<QByteArray>& value);
    // False when the descriptor cannot be duplicated.
    bool SetDescriptor(const QByteArray& key, int fd);
    // Takes over a descriptor the caller no longer closes.
    void AdoptDescriptor(const QByteArray& key, std::shared_ptr<const DlrdDescriptor> descriptor);

    QList<QByteArray> Keys() const { return values.keys(); }
    int Count() const { return values.size(); }
    bool Has(const QByteArray& key, Kind kind) const;

    // Missing keys and values of another kind read as 0, null, empty or -1.
    qint64 Int64(const QByteArray& key) const;
    const QByteArray* String(const QByteArray& key) const;
    QList<QByteArray> StringArray(const QByteArray& key) const;
    // A new descriptor the caller must close, or -1.
    int DupDescriptor(const QByteArray& key) const;

    struct Value {
        Kind kind = Int64Kind;
        qint64 integer = 0;
        QByteArray text;
        QList<QByteArray> texts;
        std::shared_ptr<const DlrdDescriptor> descriptor;
    };
    const QMap<QByteArray, Value>& Values() const { return values; }

private:
    const Value* find(const QByteArray& key, Kind kind) const;

    QMap<QByteArray, Value> values;
};
