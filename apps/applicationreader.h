// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"

#include <QByteArray>
#include <QByteArrayView>

#include <optional>
#include <variant>

namespace QMR {

// Takes the stream of what one application sends apart into messages. A state machine over bytes: no socket,
// no log, no clock.
//
// An arrival begins a round, which reads message after message until all that has come is read, or until
// something stops it; then nothing more is read before the next arrival. Within a round the rest of a message
// is waited for.
class ApplicationReader
{
public:
    // What the log is told of.
    enum class Fault {
        InvalidHeader,      // stops the round, its 8 bytes are gone
        UnsupportedVersion, // stops the round, the whole message is gone
        InvalidLength,      // of a report
        InvalidType,
        Timeout, // stops the round; a header is gone, what came of a header or of a payload is kept
    };
    // Nothing: a message that asks for nothing, or a header whose payload has not come yet.
    using Reading = std::variant<std::monostate, Qmra::RadioReport, Fault>;

    // How much may arrive now; far more than a message.
    qsizetype room() const { return Capacity - waiting.size(); }
    // bytes: no more than there is room for. What a fault has stopped is taken up again.
    void arrived(QByteArrayView bytes);

    // Whether there is something to read: the round goes on, and what it needs next is there.
    bool isReady() const;
    // Whether it goes on when the rest of a message comes.
    bool isAwaiting() const { return inRound && !isReady(); }

    // Only while it is ready.
    Reading read();
    // The rest of a message has not come in time. Only while it is awaited.
    Fault giveUpWaiting();

private:
    static constexpr qsizetype Capacity = 64LL * 1024;

    // The bytes that are needed before the next read: a payload, or a header.
    qsizetype wanted() const { return header ? header->payloadLength : Qmra::HeaderSize; }
    Fault stop(Fault fault);
    Reading readPayload();
    Reading judge(const Qmra::Header &message, QByteArrayView payload);

    QByteArray waiting;
    std::optional<Qmra::Header> header; // of the message whose payload comes next
    bool inRound = false;
};

} // namespace QMR
