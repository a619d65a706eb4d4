// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/http.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <boost/beast/http/status.hpp>

using namespace Qt::StringLiterals;

namespace Monitor {

Answer Answer::error(int status, const QByteArray &text)
{
    const QJsonObject object{{u"error"_s, QString::fromUtf8(text)}};
    return {status, "application/json"_ba, QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n'};
}

QByteArray head(const Answer &answer, bool keepAlive)
{
    const auto reason =
        boost::beast::http::obsolete_reason(static_cast<boost::beast::http::status>(answer.status));
    QByteArray text = "HTTP/1.1 " + QByteArray::number(answer.status) + ' ' +
                      QByteArray(reason.data(), static_cast<qsizetype>(reason.size())) + "\r\n";
    const auto field = [&text](const QByteArray &name, const QByteArray &value) {
        text += name + ": " + value + "\r\n";
    };
    field("Content-Type"_ba, answer.type);
    if (!answer.stream) {
        field("Content-Length"_ba, QByteArray::number(answer.body.size()));
    }
    if (!keepAlive) {
        field("Connection"_ba, "close"_ba);
    }
    // What the page may load and who may show it: only itself, and nobody.
    field("Content-Security-Policy"_ba,
          "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
          "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"_ba);
    field("X-Content-Type-Options"_ba, "nosniff"_ba);
    field("Referrer-Policy"_ba, "no-referrer"_ba);
    field("Cache-Control"_ba, "no-store"_ba);
    for (const auto &[name, value] : answer.fields) {
        field(name, value);
    }
    return text + "\r\n";
}

} // namespace Monitor
