// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/livetable.h"

#include "tools/watch/columns.h"

#include <QCoreApplication>

#include <utility>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

constexpr int RedrawPeriod = 100; // ms
constexpr int AgePeriod = 1000;   // ms; how long ago something was changes with it

void callLater(const std::function<void()> &function)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), function, Qt::QueuedConnection);
}

} // namespace

LiveTable::LiveTable(RadioTable &newTable, const QElapsedTimer &newClock)
    : table(newTable),
      clock(newClock),
      view(newTable),
      keys(Keys::create([this](const Key &key) { pressed(key); })),
      jobControl(JobControl::create({[this] { leave(); }, [this] { goOn(); }}))
{
    table.onTouched = [this](const QMR::Esn &esn) {
        view.touch(esn);
        isDirty = true;
    };
    QObject::connect(&ticks, &QTimer::timeout, &ticks, [this] { tick(); });
    ticks.start(RedrawPeriod);
    sinceDrawn.start();
    goOn();
}

LiveTable::~LiveTable()
{
    table.onTouched = nullptr;
    leave();
}

void LiveTable::setStatus(const QString &text, bool isOld)
{
    status = text;
    oldSince = isOld ? std::optional(oldSince.value_or(clock.elapsed())) : std::nullopt;
    isDirty = true;
}

void LiveTable::enter()
{
    if (!screen) {
        screen = std::make_unique<Screen>();
    }
    screen->forget();
    if (keys) {
        keys->begin();
    }
    isDirty = true;
}

void LiveTable::leave()
{
    if (screen && keys) {
        keys->end();
    }
    screen.reset();
}

void LiveTable::goOn()
{
    if (isForeground()) {
        enter();
    } else {
        leave();
    }
}

void LiveTable::pressed(const Key &key)
{
    if (!view.press(key)) {
        callLater(onQuit);
    }
    isDirty = true;
    if (sinceDrawn.hasExpired(RedrawPeriod)) {
        draw(); // at once: nobody likes to wait for a key
    }
}

void LiveTable::tick()
{
    if (!screen && isForeground()) {
        enter();
    }
    // The window's size is asked for, since not every platform tells of it.
    if (isDirty || sinceDrawn.hasExpired(AgePeriod) || Screen::size() != drawnSize) {
        draw();
    }
}

void LiveTable::draw()
{
    isDirty = false;
    sinceDrawn.start();
    const ScreenSize size = Screen::size();
    const QStringList lines =
        view.lines({size.columns, size.rows, Screen::hasColours(), keys != nullptr, clock.elapsed(), head()});
    if (!screen) {
        return; // the view has taken in what has changed, and waits
    }
    if (std::exchange(drawnSize, size) != size) {
        screen->forget(); // what a window does to its lines then is its own affair
    }
    if (!screen->show(lines)) {
        callLater(onOutputLost);
    }
}

QString LiveTable::head() const
{
    const QString radios = QString::number(table.size()) + u" radios";
    return oldSince
               ? u"%1 as they were %2 ago; %3"_s.arg(radios, ageText(clock.elapsed() - *oldSince), status)
               : radios + u", " + status;
}

} // namespace WatchTool
