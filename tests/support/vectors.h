// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// docs/protocols.json, which a test has among its resources: what it says that the bytes mean.
#pragma once

#include "radio/identity.h"

#include <QFile>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <stdexcept>

namespace Vectors {

inline QJsonObject description()
{
    QFile file(QStringLiteral(":/protocols.json"));
    if (!file.open(QIODevice::ReadOnly)) {
        throw std::logic_error("the description of the protocols is no resource of this test");
    }
    return QJsonDocument::fromJson(file.readAll()).object();
}

inline QByteArray bytes(const QJsonValue &hex)
{
    return QByteArray::fromHex(hex.toString().toLatin1());
}

inline QMR::ServiceList services(const QJsonValue &codes)
{
    QMR::ServiceList list;
    for (const auto &code : codes.toArray()) {
        list.push_back(static_cast<quint32>(code.toInt()));
    }
    return list;
}

// Identity: QMR::Esn or QMR::Suid.
template<typename Identity>
Identity identity(const QJsonValue &hex)
{
    const QByteArray digits = bytes(hex);
    Identity read;
    if (static_cast<size_t>(digits.size()) != read.bytes.size()) {
        throw std::logic_error("an identity of the wrong width");
    }
    std::copy(digits.cbegin(), digits.cend(), read.bytes.begin());
    return read;
}

inline quint8 byte(const QJsonValue &number)
{
    return static_cast<quint8>(number.toInt());
}

// A row for each vector of a kind that its sender sends, and that the test wants; there has to be one.
template<typename Wanted>
void rows(const QString &kind, const QString &sender, Wanted isWanted)
{
    QTest::addColumn<QJsonObject>("vector");
    int count = 0;
    const QJsonArray all = description()[QStringLiteral("vectors")][kind].toArray();
    for (const auto &value : all) {
        const QJsonObject vector = value.toObject();
        if (vector[QStringLiteral("from")].toString() == sender && isWanted(vector)) {
            QTest::newRow(qPrintable(vector[QStringLiteral("name")].toString())) << vector;
            ++count;
        }
    }
    QVERIFY(count > 0);
}

inline void rows(const QString &kind, const QString &sender)
{
    rows(kind, sender, [](const QJsonObject &) { return true; });
}

} // namespace Vectors
