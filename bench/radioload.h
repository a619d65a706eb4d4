// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "bench/radioorder.h"
#include "tools/radio/fleetsocket.h"

#include <QElapsedTimer>
#include <QTimer>

#include <chrono>
#include <functional>
#include <vector>

// Radios that register with a server on loopback, each from the address that it is stored with. Any failure
// ends the run; one socket, no thread.
class RadioLoad
{
public:
    struct Result
    {
        uint32_t sent = 0;
        uint32_t acknowledged = 0;
        double seconds = 0;                 // from the first registration to the last acknowledgement
        double worstMilliseconds = 0;       // from a registration to its acknowledgement
        std::vector<double> milliseconds{}; // the same of each that was acknowledged

        uint32_t lost() const { return sent - acknowledged; }
        double rate() const { return acknowledged / seconds; }
    };

    // port: of a server that runs.
    explicit RadioLoad(quint16 port);

    // Known radios, so many under way at once, for a time or until each has registered once.
    Result keepUnderWay(RadioOrder &radios, uint32_t window, std::chrono::milliseconds time);
    Result registerEach(RadioOrder &radios, uint32_t window);
    // Known radios, so many a second, for as long as a condition holds.
    Result steady(RadioOrder &radios, uint32_t perSecond, const std::function<bool()> &goesOn);
    // Radios first to first + count - 1, each once, as fast as they can be sent.
    Result atOnce(uint32_t first, uint32_t count);

private:
    void begin();
    void add(uint32_t radio);
    void send();
    void acknowledged(QByteArrayView datagram, uint32_t address);
    bool awaitMore();
    Result run(RadioOrder &radios, uint32_t window, uint32_t registrations, qint64 nanoseconds);
    uint64_t dropped() const;

    const quint16 port;
    std::unique_ptr<RadioTool::FleetSocket> socket;
    std::vector<RadioTool::FleetDatagram> batch;
    size_t batched = 0;
    QMR::Suid suid;
    QMR::ServiceList services;

    std::vector<qint64> sentAt; // by radio, ns on the clock; NotWaiting where none is under way
    QElapsedTimer clock;
    Result result;
    qint64 lastHeard = 0; // ns
    uint64_t droppedBefore = 0;
    QTimer wakeUp; // a wait ends now and then, to see whether it is in vain
};
