// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/http.h"
#include "tools/monitor/observed.h"

namespace Monitor {

// What one reader is told, as server-sent events: how things stand, each time that this is put into words
// anew; the whole table in slices; then each radio that has changed, as it is when its turn comes. It keeps
// only how far it is: a reader that is slow is told of several changes as one.
//
//   status    statusObject()
//   radios    an array of radios
//   snapshot  "radios": so many were told, and the rest of the table are radios that have changed since: they
//   are next reset     the reader missed that some are gone: it empties its table, and is told the whole
//   again
class Feed : public Stream
{
public:
    explicit Feed(const Observed &observed);

    QByteArray next() override;

private:
    void beginAnew();
    QByteArray nextRadios();

    const Observed &observed;
    quint64 toldStatus = 0;
    quint64 told = 0;       // the order of the change told last
    quint64 endOfTable = 0; // the order of the last change as the table began to be told
    qint64 radiosOfTable = 0;
    bool tableIsTold = false;
};

} // namespace Monitor
