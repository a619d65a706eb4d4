// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/configurationcheck.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;
using QMR::Configuration;

namespace CheckTool {

namespace {

Finding finding(State state, const QString &text)
{
    return {u"configuration"_s, state, text};
}

// Whether it is found by the name that the server uses, though it is spelled otherwise: keys that differ in
// case alone are one on some platforms.
bool isFoundAs(const QSettings &settings, const QString &key, const QString &name)
{
    return key.compare(name, Qt::CaseInsensitive) == 0 && settings.contains(name) &&
           !settings.allKeys().contains(name);
}

// The key of the server's that somebody meant.
const Configuration::Key *meant(const QString &key)
{
    const QString name = key.section(u'/', -1);
    const auto *const found =
        std::find_if(Configuration::keys().begin(), Configuration::keys().end(), [&name](const auto &known) {
            return name.compare(QLatin1String(known.name), Qt::CaseInsensitive) == 0;
        });
    return found == Configuration::keys().end() ? nullptr : found;
}

Findings checkKey(const QSettings &settings, const QString &key)
{
    const Configuration::Key *const known = meant(key);
    if (!known) {
        return {finding(State::Warning, u"%1 is not a setting of the server's"_s.arg(key))};
    }
    const auto name = QLatin1String(known->name);
    if (key == name || isFoundAs(settings, key, name)) {
        return {};
    }
    const QString wrong = key.contains(u'/')
                              ? u"%1 stands in a section and is not read; %2 belongs above all sections"_s
                              : u"%1 is not read; the setting is written %2"_s;
    return {finding(State::Critical, wrong.arg(key, name))};
}

// The server takes what is too large modulo 2^32, and what is no number for 0.
Findings checkNumber(const QSettings &settings, const Configuration::Key &key, quint32 taken)
{
    const auto name = QLatin1String(key.name);
    const QVariant value = settings.value(name);
    bool isNumber = false;
    const quint64 number = value.toString().toULongLong(&isNumber);
    if (!value.isValid() || (isNumber && number == taken)) {
        return {};
    }
    return {finding(State::Critical,
                    u"%1=%2 is not a number from 0 to %3, and counts as %4"_s.arg(
                        name, value.toStringList().join(u','),
                        QString::number(std::numeric_limits<quint32>::max()), QString::number(taken)))};
}

Findings checkPort(const char *name, quint32 port)
{
    if (port == 0) {
        return {finding(State::Critical,
                        u"%1 is 0: the server gets a port that nobody knows"_s.arg(QLatin1String(name)))};
    }
    if (port > std::numeric_limits<quint16>::max()) {
        return {finding(State::Critical, u"%1=%2 is beyond 65535: the server takes port %3"_s.arg(
                                             QLatin1String(name), QString::number(port),
                                             QString::number(static_cast<quint16>(port))))};
    }
    return {};
}

Findings checkPeriod(quint32 seconds)
{
    if (seconds == 0) {
        return {finding(State::Warning,
                        u"minimumDiscoveryPeriod is 0: radios are asked as fast as the server can"_s)};
    }
    if (seconds > quint32{std::numeric_limits<qint32>::max()}) {
        return {finding(State::Critical,
                        u"minimumDiscoveryPeriod=%1 is beyond %2, and counts as none"_s.arg(
                            QString::number(seconds), QString::number(std::numeric_limits<qint32>::max())))};
    }
    return {};
}

} // namespace

Findings checkConfiguration(const QString &file, Configuration &configuration)
{
    configuration = Configuration();
    if (const QFileInfo info(file); info.exists() && !info.isFile()) {
        return {finding(State::Critical, u"%1 is not a file"_s.arg(file))};
    }
    QFile contents(file);
    if (contents.exists() && !contents.open(QIODevice::ReadOnly)) {
        return {finding(State::Unknown, u"%1: %2"_s.arg(file, contents.errorString()))};
    }
    const bool isThere = contents.isOpen();
    contents.close();
    const QSettings settings(file, QSettings::IniFormat);
    configuration = Configuration::read(settings);

    Findings findings;
    if (settings.status() == QSettings::FormatError) {
        findings += finding(State::Critical, u"%1: a line is not KEY=VALUE"_s.arg(file));
    }
    for (const QString &key : settings.allKeys()) {
        findings += checkKey(settings, key);
    }
    for (const auto &key : Configuration::keys()) {
        findings += checkNumber(settings, key, configuration.*key.value);
    }
    findings += checkPeriod(configuration.minimumDiscoveryPeriod);
    findings += checkPort("radioRegistrationPort", configuration.radioRegistrationPort);
    findings += checkPort("applicationPort", configuration.applicationPort);
    if (findings.isEmpty()) {
        const QString from = isThere ? file : u"no %1, the defaults"_s.arg(file);
        findings += finding(State::Ok, u"%1: requests %2 s apart, UDP port %3, TCP port %4"_s.arg(
                                           from, QString::number(configuration.minimumDiscoveryPeriod),
                                           QString::number(configuration.radioRegistrationPort),
                                           QString::number(configuration.applicationPort)));
    }
    return findings;
}

} // namespace CheckTool
