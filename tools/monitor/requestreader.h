// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/http.h"

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <optional>

namespace Monitor {

// Cuts what arrives on a connection into requests. No socket, no clock.
class RequestReader
{
public:
    static constexpr quint32 LongestHead = 8192; // bytes: of the request line, and of all fields
    static constexpr quint64 LongestBody = 0;    // no request here has one

    RequestReader();

    struct Result
    {
        std::optional<Request> request;
        int error = 0; // the status to answer; nothing can be read any more
    };

    void add(const QByteArray &bytes) { input += bytes; }
    // The next whole request, or what is wrong; neither: more is needed.
    Result next();
    bool isWithinRequest() const { return !input.isEmpty() || parser->got_some(); }

private:
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void begin();
    Result taken();

    std::optional<Parser> parser; // of one request each
    QByteArray input;
};

} // namespace Monitor
