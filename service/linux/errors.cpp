// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/errors.h"

#include <array>
#include <utility>

using namespace Qt::StringLiterals;

namespace Linux {

namespace {

thread_local Scm::Dword threadError = 0;

const std::array<std::pair<Scm::Dword, const char *>, 21> texts = {{
    {0, "The operation completed successfully."},
    {Scm::ErrorAccessDenied, "Access is denied."},
    {ErrorInvalidHandle, "The handle is invalid."},
    {ErrorWriteFault, "The system cannot write to the specified device."},
    {ErrorInvalidParameter, "The parameter is incorrect."},
    {ErrorInvalidName, "The filename, directory name, or volume label syntax is incorrect."},
    {ErrorInvalidLevel, "The system call level is not correct."},
    {Scm::ErrorServiceNotAcceptingControl, "The requested control is not valid for this service."},
    {ErrorRequestTimeout, "The service did not respond to the start or control request in a timely fashion."},
    {Scm::ErrorServiceAlreadyRunning, "An instance of the service is already running."},
    {ErrorInvalidServiceAccount,
     "The account name is invalid or does not exist, or the password is invalid for the account name "
     "specified."},
    {ErrorServiceDisabled, "The service cannot be started because it is disabled."},
    {Scm::ErrorServiceDoesNotExist, "The specified service does not exist as an installed service."},
    {ErrorCannotAcceptControl, "The service cannot accept control messages at this time."},
    {Scm::ErrorServiceNotActive, "The service has not been started."},
    {Scm::ErrorFailedControllerConnect, "The service process could not connect to the service controller."},
    {ErrorProcessAborted, "The process terminated unexpectedly."},
    {ErrorMarkedForDelete, "The specified service has been marked for deletion."},
    {Scm::ErrorServiceExists, "The specified service already exists."},
    {ErrorNotInExecutable,
     "The executable program that this service is configured to run in does not implement the service."},
    {ErrorManagerUnavailable, "The service manager is unavailable."},
}};

} // namespace

Scm::Bool fail(Scm::Dword error)
{
    threadError = error;
    return 0;
}

Scm::Dword lastError()
{
    return threadError;
}

QString errorText(Scm::Dword error)
{
    for (const auto &[code, text] : texts) {
        if (code == error) {
            return QString::fromLatin1(text);
        }
    }
    return u"Unknown error %1."_s.arg(error);
}

} // namespace Linux
