// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Any bytes as what a browser sends: read in one piece and in several they mean the same, and each request
// has an answer that can be read.
#include "tests/support/radionotice.h"
#include "tools/monitor/requestreader.h"
#include "tools/monitor/site.h"

#include <QJsonDocument>

#include <array>
#include <cstdlib>

namespace {

using namespace Monitor;

// The first byte says what stands in front of the others; behind them there is the rest of a request.
constexpr std::array Beginnings{"GET / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n",
                                "",
                                "GET /",
                                "GET /api/radios?query=",
                                "GET /api/radios?state=",
                                "GET /api/radios/",
                                "HEAD /metrics HTTP/1.1\r\nAuthorization: Basic ",
                                "GET / HTTP/1.1\r\nHost: "};
constexpr auto End = " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

// What comes out of the bytes, given in pieces of so many.
QByteArrayList read(const QByteArray &bytes, qsizetype piece, QList<Request> *requests)
{
    QByteArrayList outcome;
    RequestReader reader;
    for (qsizetype at = 0; at < bytes.size(); at += piece) {
        reader.add(bytes.mid(at, piece));
        for (auto result = reader.next(); result.request || result.error != 0; result = reader.next()) {
            if (result.error != 0) {
                outcome.append(QByteArray::number(result.error));
                return outcome;
            }
            outcome.append(result.request->method + ' ' + result.request->path.toUtf8());
            if (requests != nullptr) {
                requests->append(*result.request);
            }
        }
    }
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    const QByteArray bytes =
        Beginnings[data[0] % Beginnings.size()] +
        QByteArray(reinterpret_cast<const char *>(data + 2), static_cast<qsizetype>(size - 2)) + End;
    QList<Request> requests;
    const QByteArrayList outcome = read(bytes, bytes.size(), &requests);
    check(outcome == read(bytes, 1 + data[1], nullptr));

    Observed observed({QStringLiteral("a:1")}, 0);
    for (const int serial : {1, 2, 3}) {
        observed.table.noticed(0, radioNotice(serial, static_cast<quint8>(serial), serial == 1), false, 0);
    }
    const Site::Clock clock{[] { return 0; }, [] { return 0; }};
    for (const Access &access : {Access(), Access({}, {"ann:secret"})}) {
        const Site site(observed, access, true, QStringLiteral("1"), clock);
        for (const Request &request : requests) {
            const Answer answer = site.answer(request);
            check(answer.status >= 200 && answer.status < 600);
            check(answer.type != "application/json" || !QJsonDocument::fromJson(answer.body).isNull());
            check(head(answer, true).endsWith("\r\n\r\n"));
            check(head(answer, true).count("\r\n\r\n") == 1);
        }
    }
    return 0;
}
