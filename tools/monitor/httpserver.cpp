// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/httpserver.h"

#include <algorithm>
#include <numeric>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

constexpr int PauseWithoutDescriptors = 1000; // ms
constexpr qsizetype LargeBody = 65536;        // bytes; what is smaller is always answered
const auto TooMany = "too many connections"_ba;

} // namespace

HttpServer::HttpServer(HttpConnection::Answering newAnswering, HttpConnection::Patience newPatience)
    : answering(std::move(newAnswering)), patience(newPatience)
{
    QObject::connect(&listener, &QTcpServer::newConnection, &listener, [this] { accept(); });
    // Qt no longer accepts then, and does not begin again by itself.
    QObject::connect(&listener, &QTcpServer::acceptError, &listener, [this] {
        makeRoom();
        again.start(PauseWithoutDescriptors);
    });
    again.setSingleShot(true);
    QObject::connect(&again, &QTimer::timeout, &again, [this] { listener.resumeAccepting(); });
}

bool HttpServer::listen(const QHostAddress &address, quint16 port)
{
    return listener.listen(address, port);
}

void HttpServer::accept()
{
    while (QTcpSocket *socket = listener.nextPendingConnection()) {
        socket->setParent(nullptr);                 // the connection's from here on
        if (places.size() >= 2 * MostConnections) { // those that are ending are too many as well
            delete socket;
            continue;
        }
        const bool isRefused = !hasRoom() && !makeRoom();
        const auto place = places.insert(places.end(), nullptr);
        *place = std::make_unique<HttpConnection>(
            socket, [this, place](const Request &request) { return answer(place, request); },
            [this, place] {
                ended.splice(ended.end(), places, place);
                QMetaObject::invokeMethod(
                    &listener, [this] { ended.clear(); }, Qt::QueuedConnection);
            },
            patience);
        if (isRefused) {
            (*place)->refuse(503, TooMany);
        }
    }
}

bool HttpServer::hasRoom() const
{
    const auto staying =
        std::count_if(places.begin(), places.end(), [](const auto &place) { return !place->isEnding(); });
    return static_cast<size_t>(staying) < MostConnections;
}

bool HttpServer::makeRoom()
{
    const auto longest =
        std::find_if(places.begin(), places.end(), [](const auto &place) { return place->isWaiting(); });
    if (longest == places.end()) {
        return false;
    }
    (*longest)->refuse(503, TooMany);
    return true;
}

Answer HttpServer::answer(Places::iterator place, const Request &request)
{
    places.splice(places.end(), places, place);
    Answer answer = answering(request);
    if (answer.body.size() > LargeBody && unsent() >= MostUnsent) {
        return Answer::error(503, "too much is waiting to be taken"_ba);
    }
    if (answer.stream && streams() >= MostStreams) {
        return Answer::error(503, "too many streams"_ba);
    }
    return answer;
}

qint64 HttpServer::unsent() const
{
    return std::accumulate(places.begin(), places.end(), qint64{0},
                           [](qint64 sum, const auto &place) { return sum + place->unsent(); });
}

void HttpServer::tellStreams()
{
    for (const auto &place : places) {
        place->tell();
    }
}

size_t HttpServer::streams() const
{
    return static_cast<size_t>(
        std::count_if(places.begin(), places.end(), [](const auto &place) { return place->isStream(); }));
}

} // namespace Monitor
