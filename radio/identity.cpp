// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/identity.h"

#include <QByteArray>

using namespace Qt::StringLiterals;

namespace QMR {

QString Esn::text(bool separated) const
{
    const QByteArray raw =
        QByteArray::fromRawData(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    return QString::fromLatin1((separated ? raw.toHex(':') : raw.toHex()).toUpper());
}

quint32 Suid::wacn() const
{
    return quint32{bytes[0]} << 12 | quint32{bytes[1]} << 4 | quint32{bytes[2]} >> 4;
}

quint32 Suid::system() const
{
    return (quint32{bytes[2]} & 0x0F) << 8 | quint32{bytes[3]};
}

quint32 Suid::unit() const
{
    return quint32{bytes[4]} << 16 | quint32{bytes[5]} << 8 | quint32{bytes[6]};
}

QString Suid::text() const
{
    const auto hexadecimal = [](quint32 value) { return QString::number(value, 16).toUpper(); };
    return u"{WACN: 0x%1, System: 0x%2, Unit: 0x%3}"_s.arg(hexadecimal(wacn()), hexadecimal(system()),
                                                           hexadecimal(unit()));
}

} // namespace QMR
