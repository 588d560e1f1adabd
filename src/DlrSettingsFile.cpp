#include "DlrSettingsFile.h"

#include <QStringList>
#include <QTextCodec>

namespace {

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// One logical line from `pos` on: leading blanks, blank lines and comment
// lines skipped; a quote runs on across line ends, a backslash takes the
// next character (a line end too) with it, and an unquoted ';' ends the
// line. `equals` is the first unquoted '=' or -1. False at the end.
bool readLine(const QByteArray& data, int& pos, int& start, int& length, int& equals)
{
    const int size = data.size();
    bool inQuotes = false;
    equals = -1;
    start = pos;
    while (start < size && isSpace(data.at(start)))
        ++start;

    int i = start;
    while (i < size) {
        const char c = data.at(i++);
        if (c == '=') {
            if (!inQuotes && equals == -1)
                equals = i - 1;
        } else if (c == '\n' || c == '\r') {
            if (i == start + 1) {
                ++start;
            } else if (!inQuotes) {
                --i;
                break;
            }
        } else if (c == '\\') {
            if (i < size) {
                const char escaped = data.at(i++);
                if (i < size) {
                    const char next = data.at(i);
                    if ((escaped == '\n' && next == '\r') || (escaped == '\r' && next == '\n'))
                        ++i;
                }
            }
        } else if (c == '"') {
            inQuotes = !inQuotes;
        } else if (c == ';') {
            if (i == start + 1) {
                while (i < size && data.at(i) != '\n' && data.at(i) != '\r')
                    ++i;
                while (i < size && isSpace(data.at(i)))
                    ++i;
                start = i;
            } else if (!inQuotes) {
                --i;
                break;
            }
        }
    }
    pos = i;
    length = i - start;
    return length > 0;
}

// A key: '\' stands for '/', %XX and %UXXXX for the character of that code.
QString unescapedKey(const QByteArray& data, int from, int to)
{
    QString key;
    int i = from;
    while (i < to) {
        const char c = data.at(i);
        if (c == '\\') {
            key += QLatin1Char('/');
            ++i;
            continue;
        }
        if (c != '%' || i == to - 1) {
            key += QLatin1Char(c);
            ++i;
            continue;
        }
        const int digits = data.at(i + 1) == 'U' ? 4 : 2;
        const int first = data.at(i + 1) == 'U' ? i + 2 : i + 1;
        bool ok = false;
        const int code = first + digits <= to ? data.mid(first, digits).toInt(&ok, 16) : 0;
        if (!ok) {
            key += QLatin1Char('%');
            ++i;
            continue;
        }
        key += QChar(ushort(code & 0xffff));
        i = first + digits;
    }
    return key;
}

void chopBlanks(QString& text, int limit)
{
    int n = text.size() - 1;
    while (n >= limit && (text.at(n) == QLatin1Char(' ') || text.at(n) == QLatin1Char('\t')))
        text.truncate(n--);
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// A value: blanks around it dropped unless quoted or escaped, C escapes,
// \x hex and octal codes, quotes removed, and an unquoted ',' making a list;
// plain runs are decoded by `codec`, or as Latin-1 without one. True when it
// is a list (in `list`), otherwise the text is in `text`.
bool unescapedValue(const QByteArray& data, int from, int to, const QTextCodec* codec, QString& text,
                    QStringList& list)
{
    static const char escapes[][2] = {{'a', '\a'}, {'b', '\b'}, {'f', '\f'}, {'n', '\n'}, {'r', '\r'}, {'t', '\t'},
                                      {'v', '\v'}, {'"', '"'},  {'?', '?'},  {'\'', '\''}, {'\\', '\\'}};
    bool isList = false;
    bool inQuotes = false;
    bool quoted = false;
    bool skipBlanks = true;
    int i = from;
    int chopLimit = 0;
    while (i <= to) {
        if (skipBlanks) {
            while (i < to && (data.at(i) == ' ' || data.at(i) == '\t'))
                ++i;
            skipBlanks = false;
            chopLimit = text.size();
        }
        if (i >= to) {
            if (!quoted)
                chopBlanks(text, chopLimit);
            break;
        }
        const char c = data.at(i);
        if (c == '\\') {
            if (++i >= to)
                break;
            const char e = data.at(i++);
            bool known = false;
            for (const auto& escape : escapes) {
                if (e == escape[0]) {
                    text += QLatin1Char(escape[1]);
                    known = true;
                    break;
                }
            }
            if (known) {
                chopLimit = text.size();
                continue;
            }
            const bool hex = e == 'x' && i < to && hexDigit(data.at(i)) >= 0;
            if (hex || (e >= '0' && e <= '7')) {
                const int base = hex ? 16 : 8;
                int code = hex ? 0 : e - '0';
                for (int digit; i < to && (digit = hexDigit(data.at(i))) >= 0 && digit < base; ++i)
                    code = (code * base + digit) & 0xffff; // a QChar keeps the low 16 bits
                text += QChar(ushort(code));
                chopLimit = text.size();
                continue;
            }
            if (e == 'x' && i >= to)
                break;
            if ((e == '\n' || e == '\r') && i < to) {
                const char next = data.at(i);
                if ((next == '\n' || next == '\r') && next != e)
                    ++i;
            }
            // Any other escaped character is dropped.
            chopLimit = text.size();
        } else if (c == '"') {
            ++i;
            quoted = true;
            inQuotes = !inQuotes;
            if (!inQuotes)
                skipBlanks = true;
        } else if (c == ',' && !inQuotes) {
            if (!quoted)
                chopBlanks(text, chopLimit);
            if (!isList) {
                isList = true;
                list.clear();
            }
            list << text;
            text.clear();
            quoted = false;
            ++i;
            skipBlanks = true;
        } else {
            int j = i + 1;
            while (j < to && data.at(j) != '\\' && data.at(j) != '"' && data.at(j) != ',')
                ++j;
            text += codec ? codec->toUnicode(data.constData() + i, j - i)
                          : QString::fromLatin1(data.constData() + i, j - i);
            i = j;
        }
    }
    if (isList)
        list << text;
    return isList;
}

QVariant textValue(const QString& text)
{
    if (!text.startsWith(QLatin1Char('@')))
        return text;
    if (text.endsWith(QLatin1Char(')'))) {
        if (text.startsWith(QLatin1String("@ByteArray(")))
            return QStringView(text).mid(11, text.size() - 12).toLatin1();
        if (text.startsWith(QLatin1String("@String(")))
            return text.mid(8, text.size() - 9);
        for (const char* encoded : {"@Variant(", "@DateTime(", "@Rect(", "@Size(", "@Point("}) {
            if (text.startsWith(QLatin1String(encoded)))
                return QVariant();
        }
        if (text == QLatin1String("@Invalid()"))
            return QVariant();
    }
    return text.startsWith(QLatin1String("@@")) ? text.mid(1) : text;
}

QVariant listValue(const QStringList& list)
{
    QStringList texts = list;
    for (QString& item : texts) {
        if (!item.startsWith(QLatin1Char('@')))
            continue;
        if (item.startsWith(QLatin1String("@@"))) {
            item.remove(0, 1);
            continue;
        }
        // One item of another type makes the whole a list of values, each
        // read from what the file said.
        QVariantList values;
        for (const QString& each : list)
            values << textValue(each);
        return values;
    }
    return texts;
}

} // namespace

QHash<QString, QVariant> DlrReadIniTopLevel(const QByteArray& data)
{
    // First the top-level lines are gathered, pieces of one section joined
    // by a line end; a byte-order mark is passed over only when looking for
    // section headers, so it stays in a first key (as in QSettings),
    // and it makes the values UTF-8.
    const bool utf8 = data.startsWith("\xef\xbb\xbf");
    const QTextCodec* codec = utf8 ? QTextCodec::codecForMib(106) : nullptr;
    QByteArray topLevel;
    bool inTopLevel = true;
    int pieceStart = 0;
    int pos = utf8 ? 3 : 0;
    int start = 0;
    int length = 0;
    int equals = -1;
    const auto endPiece = [&](int end) {
        if (!inTopLevel)
            return;
        if (!topLevel.isEmpty())
            topLevel += '\n';
        topLevel += data.mid(pieceStart, end - pieceStart);
    };
    while (readLine(data, pos, start, length, equals)) {
        if (data.at(start) != '[')
            continue;
        endPiece(start);
        const int close = data.indexOf(']', start);
        const QByteArray section = (close == -1 || close >= start + length ? data.mid(start + 1, length - 1)
                                                                            : data.mid(start + 1, close - start - 1))
                                       .trimmed();
        inTopLevel = section.compare("general", Qt::CaseInsensitive) == 0;
        pieceStart = pos;
    }
    endPiece(data.size());

    QHash<QString, QVariant> values;
    pos = 0;
    while (readLine(topLevel, pos, start, length, equals)) {
        if (equals == -1)
            continue;
        int keyEnd = equals;
        while (keyEnd > start && (topLevel.at(keyEnd - 1) == ' ' || topLevel.at(keyEnd - 1) == '\t'))
            --keyEnd;
        const QString key = unescapedKey(topLevel, start, keyEnd);
        QString text;
        QStringList list;
        values.insert(key, unescapedValue(topLevel, equals + 1, start + length, codec, text, list) ? listValue(list)
                                                                                           : textValue(text));
    }
    return values;
}
