// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/requestreader.h"

#include <QUrl>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace http = boost::beast::http;

namespace {

QByteArray bytes(const boost::beast::string_view &view)
{
    return {view.data(), static_cast<qsizetype>(view.size())};
}

int statusOf(const boost::system::error_code &error)
{
    if (error == http::error::header_limit) {
        return 431;
    }
    if (error == http::error::body_limit) {
        return 413;
    }
    return 400;
}

} // namespace

RequestReader::RequestReader()
{
    begin();
}

void RequestReader::begin()
{
    parser.emplace();
    parser->header_limit(LongestHead);
    parser->body_limit(LongestBody);
    parser->eager(true);
}

RequestReader::Result RequestReader::next()
{
    while (!input.isEmpty() && !parser->is_done()) {
        boost::system::error_code error;
        const size_t used = parser->put(
            boost::asio::const_buffer(input.constData(), static_cast<size_t>(input.size())), error);
        input.remove(0, static_cast<qsizetype>(used));
        // What is sent in chunks has no bound of its own, and nothing here takes a body.
        if (parser->is_header_done() && parser->get().count(http::field::transfer_encoding) > 0) {
            return {std::nullopt, 413};
        }
        if (error == http::error::need_more) {
            return {};
        }
        if (error) {
            return {std::nullopt, statusOf(error)};
        }
    }
    return parser->is_done() ? taken() : Result();
}

RequestReader::Result RequestReader::taken()
{
    const auto &message = parser->get();
    Request request;
    request.method = bytes(message.method_string());
    request.host = bytes(message[http::field::host]);
    request.authorization = bytes(message[http::field::authorization]);
    request.keepAlive = message.keep_alive();
    const QByteArray target = bytes(message.target());
    const size_t hosts = message.count(http::field::host);
    const bool hostIsRight = hosts == 1 || (hosts == 0 && message.version() < 11);
    begin();

    const qsizetype query = target.indexOf('?');
    request.path =
        QString::fromUtf8(QByteArray::fromPercentEncoding(target.left(query < 0 ? target.size() : query)));
    if (query >= 0) {
        // A form's blank is a plus sign, which QUrlQuery leaves as it is.
        request.query = QUrlQuery(QString::fromUtf8(target.mid(query + 1).replace('+', "%20")));
    }
    if (!target.startsWith('/') || !hostIsRight) {
        return {std::nullopt, 400};
    }
    return {request};
}

} // namespace Monitor
