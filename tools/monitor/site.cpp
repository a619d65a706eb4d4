// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/site.h"

#include "tools/console.h"
#include "tools/monitor/feed.h"
#include "tools/monitor/json.h"
#include "tools/monitor/listing.h"
#include "tools/monitor/metrics.h"

#include <QFile>
#include <QJsonDocument>

#include <array>
#include <utility>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

const auto JsonType = "application/json"_ba;
const auto TextType = "text/plain; charset=utf-8"_ba;

struct PageFile
{
    const char *path;
    const char *file;
    const char *type;
};

constexpr std::array PageFiles{
    PageFile{"/", ":/page/index.html", "text/html; charset=utf-8"},
    PageFile{"/page.js", ":/page/page.js", "text/javascript; charset=utf-8"},
    PageFile{"/page.css", ":/page/page.css", "text/css; charset=utf-8"},
    PageFile{"/icon.svg", ":/page/icon.svg", "image/svg+xml"},
};

Answer json(const QJsonObject &object)
{
    return {200, JsonType, QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n'};
}

// An address, or "localhost", whatever port.
bool isOwnName(const QByteArray &host)
{
    const qsizetype colon = host.lastIndexOf(':');
    const QString name = QString::fromLatin1(host.left(colon < 0 ? host.size() : colon));
    return name.compare(u"localhost"_s, Qt::CaseInsensitive) == 0 ||
           static_cast<bool>(Console::parseAddress(name));
}

} // namespace

Site::Site(Observed &newObserved, Access newAccess, bool newIsLocal, QString newVersion, Clock newClock)
    : observed(newObserved),
      access(std::move(newAccess)),
      isLocal(newIsLocal),
      version(std::move(newVersion)),
      clock(std::move(newClock))
{
}

Answer Site::answer(const Request &request) const
{
    if (!access.admits(request.peer)) {
        return Answer::error(403, "not from this address"_ba);
    }
    // A page from elsewhere can have its own name mean this machine, and would be a reader here.
    if (isLocal && !request.host.isEmpty() && !isOwnName(request.host)) {
        return Answer::error(421, "this is served at an address, not at a name"_ba);
    }
    const bool isKnown = access.knows(request.authorization);
    if (!isKnown && request.path != u"/healthz") {
        Answer answer = Answer::error(401, "a login is needed"_ba);
        answer.fields.append({"WWW-Authenticate"_ba, R"(Basic realm="Quillmere", charset="UTF-8")"_ba});
        return answer;
    }
    if (request.method != "GET" && request.method != "HEAD") {
        Answer answer = Answer::error(405, "GET and HEAD only"_ba);
        answer.fields.append({"Allow"_ba, "GET, HEAD"_ba});
        return answer;
    }
    return request.path == u"/healthz" ? health(isKnown) : found(request);
}

Answer Site::found(const Request &request) const
{
    const QString &path = request.path;
    for (const PageFile &page : PageFiles) {
        QFile file(QString::fromLatin1(page.file));
        if (path == QLatin1StringView(page.path) && file.open(QIODevice::ReadOnly)) {
            return {200, page.type, file.readAll()};
        }
    }
    if (path == u"/metrics") {
        return {200, "text/plain; version=0.0.4; charset=utf-8"_ba,
                metricsText(observed, version, streams(), clock.now())};
    }
    if (path == u"/api/radios") {
        return listing(request.query);
    }
    if (path.startsWith(u"/api/radios/")) {
        return radio(path.mid(12));
    }
    if (path == u"/api/rates") {
        return json(ratesObject(observed.activity, clock.now(), clock.steady()));
    }
    if (path == u"/api/events") {
        Answer answer{200, "text/event-stream"_ba, {}};
        answer.stream = std::make_unique<Feed>(observed);
        return answer;
    }
    return Answer::error(404, "there is nothing at this path"_ba);
}

Answer Site::health(bool isKnown) const
{
    QByteArray away;
    for (const Server &server : observed.table.servers()) {
        if (!server.isConnected) {
            const QString reason = server.reason.isEmpty() ? u"not yet connected"_s : server.reason;
            away += QString(server.name + u": " + reason + u'\n').toUtf8();
        }
    }
    if (away.isEmpty()) {
        return {200, TextType, "ok\n"_ba};
    }
    // Which servers there are is for those who may know.
    return {503, TextType, isKnown ? away : "not all servers are there\n"_ba};
}

Answer Site::listing(const QUrlQuery &query) const
{
    const auto listing = Listing::parse(query);
    return listing ? Answer{200, JsonType, listing.value->text(observed.table)}
                   : Answer::error(400, listing.error.toUtf8());
}

Answer Site::radio(const QString &esn) const
{
    const auto parsed = Console::parseEsn(esn);
    if (!parsed) {
        return Answer::error(400, parsed.error.toUtf8());
    }
    const QByteArray text = radioText(observed.table, *parsed);
    return text.isEmpty() ? Answer::error(404, "no radio of this ESN is known"_ba)
                          : Answer{200, JsonType, text};
}

} // namespace Monitor
