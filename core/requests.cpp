// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "apps/applicationconnection.h"
#include "apps/applicationmanager.h"

namespace QMR {

namespace {

constexpr int TableSlice = 256; // notices

} // namespace

void Quillmere::sendRadioTable(ApplicationConnection &application)
{
    const auto &place = application.tablePlace();
    auto next = place ? radiosByEsn.upper_bound(*place) : radiosByEsn.cbegin();
    for (int i = 0;
         i < TableSlice && next != radiosByEsn.cend() && applicationManager->wantsTable(application);
         ++i, ++next) {
        applicationManager->sendRadioNotice(next->second, &application);
    }
    if (next == radiosByEsn.cend()) {
        application.completeTable();
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
