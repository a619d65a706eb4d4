// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the command-line tools share: reading the values of options, and writing lines for people and for
// machines. Readers are strict: the whole text is a value of its kind, or the error says what it should be.
#pragma once

#include "radio/identity.h"

#include <QHostAddress>
#include <QJsonObject>
#include <QString>

#include <functional>
#include <optional>
#include <utility>

namespace Console {

// The program's name and version, as errors and --version show them.
void introduce(const QString &name, const char *version);
QString versionText(); // "quillmere-watch 1.38.3"

// Exit codes of every tool; a tool may add its own from 3 on.
constexpr int ExitSuccess = 0;
constexpr int ExitError = 1;
constexpr int ExitUsage = 2;

constexpr quint16 DefaultPort = 9361; // of the server, for radios (UDP) and applications (TCP)

// A value, or why the text is none: a whole sentence's end, "'x' is not a port (1 to 65535)".
template<class T>
struct Parsed
{
    std::optional<T> value;
    QString error;

    explicit operator bool() const { return value.has_value(); }
    const T &operator*() const { return *value; }

    static Parsed of(T value) { return {std::move(value), QString()}; }
    static Parsed failed(const QString &error) { return {std::nullopt, error}; }
};

struct Endpoint
{
    QHostAddress address;
    quint16 port = 0;
    QString name = {}; // where it was given by name: the address is null until it has been looked up

    QString host() const; // as it was given
    QString text() const; // "127.0.0.1:9361"
};

// Decimal digits only.
Parsed<quint64> parseNumber(const QString &text, quint64 minimum, quint64 maximum);
Parsed<quint16> parsePort(const QString &text); // 1 to 65535
// Four decimal numbers, none with leading zeros.
Parsed<QHostAddress> parseAddress(const QString &text);
// A host by its address or its name; nothing is looked up.
Parsed<QString> parseHost(const QString &text);
// "HOST" or "HOST:PORT"; nothing is looked up.
Parsed<Endpoint> parseEndpoint(const QString &text, quint16 defaultPort = DefaultPort);
// The address of a host that has been parsed. Fails when its name is not known, or has no IPv4 address;
// blocks for as long as the system's resolver does.
Parsed<QHostAddress> resolve(const QString &host);
// Seconds with at most three decimals, from 0.001 to a year; the value is in milliseconds.
Parsed<qint64> parseSeconds(const QString &text);
// 16 hexadecimal digits, or 8 pairs of them with ":" between.
Parsed<QMR::Esn> parseEsn(const QString &text);
// "WACN.System.Unit", each hexadecimal and within its 20, 12 and 24 bits.
Parsed<QMR::Suid> parseSuid(const QString &text);

// The form that parseSuid reads, all digits: "12345.678.9ABCDE".
QString suidText(const QMR::Suid &suid);

// A line on standard output, there at once also when that is a file or a pipe. Where it cannot be written the
// process says so and ends, with ExitError unless another exit code has been set.
void writeLine(const QString &line);
void setExitWithoutOutput(int exitCode);
// One compact object, one line, in the same way.
void writeJson(const QJsonObject &object);
// Text on standard output as it is, at once. False: it could not be written, and that is all that happens.
bool write(const QString &text);
// "<program>: <text>" on standard error.
void writeError(const QString &text);
// On standard error, in place of the last progress; only for a terminal. Empty text wipes it.
void writeProgress(const QString &text);

// Of the platform: to write where nobody reads any more fails, and does not end the process without a word.
void brokenPipeIsAnError();

bool isTerminalOutput();
bool isTerminalError();

// The handler runs in the event loop at each Ctrl-C, and when the process is asked to end. Call it once, with
// a QCoreApplication.
void onInterrupt(std::function<void()> handler);

} // namespace Console
