// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/console.h"

#include "tools/lookup.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace Console {

namespace {

constexpr qint64 MaximumMilliseconds = 31'536'000'000; // a year

int exitWithoutOutput = ExitError;

// False: not all of it has been written. A line that a terminal has not taken glibc's fwrite() drops, and
// returns that it has written it: only the stream knows of the error.
bool put(FILE *stream, const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    const auto size = static_cast<size_t>(bytes.size());
    return std::fwrite(bytes.constData(), 1, size, stream) == size && std::fflush(stream) == 0 &&
           std::ferror(stream) == 0;
}

// Who asked for it would take half of it for the whole.
void putOrEnd(const QString &text)
{
    brokenPipeIsAnError();
    if (!put(stdout, text)) {
        writeError(u"standard output: "_s + qt_error_string(errno));
        std::_Exit(exitWithoutOutput);
    }
}

bool isDigits(const QString &text)
{
    static const QRegularExpression digits(u"^[0-9]+\\z"_s);
    return digits.match(text).hasMatch();
}

// Letters, digits, "_" and inner dashes in each label. The last is no number: the system's resolver would
// take what is written like "127.1" or "0x7f000001" for an address.
bool isHostName(const QString &text)
{
    static const QRegularExpression form(
        u"^(?:(?!-)[A-Za-z0-9_-]{1,63}(?<!-)\\.)*(?!-|(?:0[xX][0-9A-Fa-f]*|[0-9]+)\\.?\\z)"
        u"[A-Za-z0-9_-]{1,63}(?<!-)\\.?\\z"_s);
    return text.size() <= 253 && form.match(text).hasMatch();
}

std::optional<quint32> hexadecimal(const QString &text, quint32 maximum)
{
    static const QRegularExpression digits(u"^[0-9A-Fa-f]{1,8}\\z"_s);
    if (!digits.match(text).hasMatch()) {
        return std::nullopt;
    }
    const quint32 value = text.toUInt(nullptr, 16);
    return value <= maximum ? std::optional(value) : std::nullopt;
}

QString padded(quint32 value, int width)
{
    return QString::number(value, 16).toUpper().rightJustified(width, u'0');
}

} // namespace

void introduce(const QString &name, const char *version)
{
    QCoreApplication::setApplicationName(name);
    QCoreApplication::setApplicationVersion(QString::fromLatin1(version));
}

QString versionText()
{
    return QCoreApplication::applicationName() + u' ' + QCoreApplication::applicationVersion();
}

QString Endpoint::host() const
{
    return name.isEmpty() ? address.toString() : name;
}

QString Endpoint::text() const
{
    return host() + u':' + QString::number(port);
}

Parsed<quint64> parseNumber(const QString &text, quint64 minimum, quint64 maximum)
{
    bool fits = false;
    const quint64 value = isDigits(text) ? text.toULongLong(&fits) : 0;
    if (!fits || value < minimum || value > maximum) {
        return Parsed<quint64>::failed(
            u"'%1' is not a number from %2 to %3"_s.arg(text).arg(minimum).arg(maximum));
    }
    return Parsed<quint64>::of(value);
}

Parsed<quint16> parsePort(const QString &text)
{
    const Parsed<quint64> number = parseNumber(text, 1, 65535);
    if (!number) {
        return Parsed<quint16>::failed(u"'%1' is not a port (1 to 65535)"_s.arg(text));
    }
    return Parsed<quint16>::of(static_cast<quint16>(*number));
}

Parsed<QHostAddress> parseAddress(const QString &text)
{
    const QStringList parts = text.split(u'.');
    quint32 address = 0;
    bool valid = parts.size() == 4;
    for (const QString &part : parts) {
        const Parsed<quint64> number = parseNumber(part, 0, 255);
        // QHostAddress would read "010" as octal, and "127.1" as well.
        valid = valid && number && QString::number(*number) == part;
        address = address << 8 | static_cast<quint32>(number.value.value_or(0));
    }
    if (!valid) {
        return Parsed<QHostAddress>::failed(u"'%1' is not an IPv4 address"_s.arg(text));
    }
    return Parsed<QHostAddress>::of(QHostAddress(address));
}

Parsed<QString> parseHost(const QString &text)
{
    if (!parseAddress(text) && !isHostName(text)) {
        return Parsed<QString>::failed(u"'%1' is neither an IPv4 address nor a host's name"_s.arg(text));
    }
    return Parsed<QString>::of(text);
}

Parsed<Endpoint> parseEndpoint(const QString &text, quint16 defaultPort)
{
    const qsizetype colon = text.indexOf(u':');
    const Parsed<QString> host = parseHost(text.left(colon));
    if (!host) {
        return Parsed<Endpoint>::failed(host.error);
    }
    const Parsed<quint16> port =
        colon < 0 ? Parsed<quint16>::of(defaultPort) : parsePort(text.mid(colon + 1));
    if (!port) {
        return Parsed<Endpoint>::failed(port.error);
    }
    const Parsed<QHostAddress> address = parseAddress(*host);
    return Parsed<Endpoint>::of(address ? Endpoint{*address, *port} : Endpoint{QHostAddress(), *port, *host});
}

Parsed<QHostAddress> resolve(const QString &host)
{
    const Parsed<QHostAddress> address = parseAddress(host);
    return address ? address : lookUp(host);
}

Parsed<qint64> parseSeconds(const QString &text)
{
    static const QRegularExpression form(u"^([0-9]{1,8})(?:\\.([0-9]{1,3}))?\\z"_s);
    const QRegularExpressionMatch match = form.match(text);
    const qint64 milliseconds =
        match.captured(1).toLongLong() * 1000 + match.captured(2).leftJustified(3, u'0').toLongLong();
    if (!match.hasMatch() || milliseconds < 1 || milliseconds > MaximumMilliseconds) {
        return Parsed<qint64>::failed(
            u"'%1' is not a number of seconds (0.001 to %2)"_s.arg(text).arg(MaximumMilliseconds / 1000));
    }
    return Parsed<qint64>::of(milliseconds);
}

Parsed<QMR::Esn> parseEsn(const QString &text)
{
    static const QRegularExpression form(u"^([0-9A-Fa-f]{16}|[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){7})\\z"_s);
    if (!form.match(text).hasMatch()) {
        return Parsed<QMR::Esn>::failed(
            u"'%1' is not an ESN (16 hexadecimal digits, or 8 pairs with ':' between)"_s.arg(text));
    }
    const QByteArray bytes = QByteArray::fromHex(text.toLatin1().replace(':', QByteArrayView()));
    QMR::Esn esn;
    std::copy(bytes.begin(), bytes.end(), esn.bytes.begin());
    return Parsed<QMR::Esn>::of(esn);
}

Parsed<QMR::Suid> parseSuid(const QString &text)
{
    const auto failed = [&text](const QString &reason) {
        return Parsed<QMR::Suid>::failed(u"'%1' is not a SUID: %2"_s.arg(text, reason));
    };
    // As an option has it, or as records and notices show it.
    const QStringList fields = text.split(text.contains(u'/') ? u'/' : u'.');
    if (fields.size() != 3) {
        return failed(u"it is WACN.System.Unit, as in 12345.678.9ABCDE"_s);
    }
    const std::optional<quint32> wacn = hexadecimal(fields[0], 0xFFFFF);
    if (!wacn) {
        return failed(u"the WACN is a hexadecimal number from 0 to FFFFF"_s);
    }
    const std::optional<quint32> system = hexadecimal(fields[1], 0xFFF);
    if (!system) {
        return failed(u"the System is a hexadecimal number from 0 to FFF"_s);
    }
    const std::optional<quint32> unit = hexadecimal(fields[2], 0xFFFFFF);
    if (!unit) {
        return failed(u"the Unit is a hexadecimal number from 0 to FFFFFF"_s);
    }
    const quint64 bits = quint64{*wacn} << 36 | quint64{*system} << 24 | *unit;
    QMR::Suid suid;
    for (size_t i = 0; i < suid.bytes.size(); ++i) {
        suid.bytes[i] = static_cast<quint8>(bits >> (8 * (suid.bytes.size() - 1 - i)));
    }
    return Parsed<QMR::Suid>::of(suid);
}

QString suidText(const QMR::Suid &suid)
{
    return padded(suid.wacn(), 5) + u'.' + padded(suid.system(), 3) + u'.' + padded(suid.unit(), 6);
}

void setExitWithoutOutput(int exitCode)
{
    exitWithoutOutput = exitCode;
}

void writeLine(const QString &line)
{
    putOrEnd(line + u'\n');
}

bool write(const QString &text)
{
    return put(stdout, text);
}

void writeJson(const QJsonObject &object)
{
    putOrEnd(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)) + u'\n');
}

void writeError(const QString &text)
{
    put(stderr, QCoreApplication::applicationName() + u": " + text + u'\n');
}

void writeProgress(const QString &text)
{
    if (isTerminalError()) {
        put(stderr, u"\r\033[K"_s + text);
    }
}

} // namespace Console
