// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "apps/applicationmanager.h"

namespace QMR {

void Quillmere::sendRadioTable(QTcpSocket *application)
{
    for (const auto &[esn, radio] : radiosByEsn) {
        applicationManager->sendRadioNotice(radio, application);
    }
}

void Quillmere::handleRadioReport(const Esn &esn, const QHostAddress &address)
{
    const RadioPointer radio = findRadio(esn);
    if (radio && radio->address == address && radio->availability == Registered) {
        setAvailability(radio, Unconfirmed);
    }
}

void Quillmere::notifyApplications(const RadioPointer &radio)
{
    applicationManager->sendRadioNotice(radio, nullptr);
}

} // namespace QMR
