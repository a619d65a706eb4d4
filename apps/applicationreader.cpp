// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationreader.h"

#include <utility>

namespace QMR {

void ApplicationReader::arrived(QByteArrayView bytes)
{
    waiting.append(bytes);
    inRound = true;
}

bool ApplicationReader::isReady() const
{
    return inRound && waiting.size() >= wanted();
}

ApplicationReader::Reading ApplicationReader::read()
{
    if (!header) {
        const auto next = Qmra::decodeHeader(QByteArrayView(waiting).first(Qmra::HeaderSize));
        waiting.remove(0, Qmra::HeaderSize);
        // No search for the next message's start is made, deliberately: what follows is read as a header.
        if (!next.magicMatches || next.protocolVersion > Qmra::ProtocolVersion ||
            next.payloadLength > Qmra::MaximumPayload) {
            return stop(Fault::InvalidHeader);
        }
        header = next;
    }
    return isReady() ? readPayload() : Reading();
}

ApplicationReader::Reading ApplicationReader::readPayload()
{
    const Qmra::Header message = *std::exchange(header, std::nullopt);
    Reading reading = judge(message, QByteArrayView(waiting).first(message.payloadLength));
    waiting.remove(0, message.payloadLength);
    if (waiting.isEmpty()) {
        waiting.clear(); // thousands of applications send nothing for hours
        inRound = false;
    }
    return reading;
}

ApplicationReader::Reading ApplicationReader::judge(const Qmra::Header &message, QByteArrayView payload)
{
    if (message.protocolVersion < Qmra::ProtocolVersion) {
        return stop(Fault::UnsupportedVersion);
    }
    switch (static_cast<Qmra::MessageType>(message.messageType)) {
    case Qmra::MessageType::RadioReport:
        if (message.payloadLength != Qmra::ReportPayload) {
            return Fault::InvalidLength;
        }
        return Qmra::decodeReport(payload);
    case Qmra::MessageType::Ignored:
        return {};
    default:
        return Fault::InvalidType;
    }
}

ApplicationReader::Fault ApplicationReader::giveUpWaiting()
{
    header.reset();
    return stop(Fault::Timeout);
}

ApplicationReader::Fault ApplicationReader::stop(Fault fault)
{
    inRound = false;
    return fault;
}

} // namespace QMR
