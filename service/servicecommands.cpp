// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the command line can ask for.
#include "service/errorwarning.h"
#include "service/qtservicebase.h"

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int ActionFailed = -1;
constexpr int StartFailed = -4;

// Prints one line about the service to standard error.
void complain(const QString &name, const char *what)
{
    static_cast<void>(std::fprintf(stderr, "The service %s %s\n", name.toLatin1().constData(), what));
}

} // namespace

int QtServiceBase::exec()
{
    struct Command
    {
        QLatin1StringView shortForm;
        QLatin1StringView longForm;
        int (QtServiceBase::*action)();
    };
    const Command commands[] = {
        {"-i"_L1, "-install"_L1, &QtServiceBase::commandInstall},
        {"-u"_L1, "-uninstall"_L1, &QtServiceBase::commandUninstall},
        {"-v"_L1, "-version"_L1, &QtServiceBase::commandVersion},
        {"-e"_L1, "-exec"_L1, &QtServiceBase::commandExec},
        {"-t"_L1, "-terminate"_L1, &QtServiceBase::commandTerminate},
        {"-p"_L1, "-pause"_L1, &QtServiceBase::commandPause},
        {"-r"_L1, "-resume"_L1, &QtServiceBase::commandResume},
        {"-c"_L1, "-command"_L1, &QtServiceBase::commandCommand},
        {"-h"_L1, "-help"_L1, &QtServiceBase::commandHelp},
    };
    const QString option = arguments.value(1);
    for (const Command &command : commands) {
        if (option == command.shortForm || option == command.longForm) {
            const int exitCode = (this->*command.action)();
            static_cast<void>(std::fflush(stdout));
            return exitCode;
        }
    }
    // An unknown option is deliberately no error: the service is started with it.
    return commandStart();
}

int QtServiceBase::commandInstall()
{
    if (controller.isInstalled()) {
        complain(name, "is already installed");
        return 0;
    }
    if (!controller.install(arguments.value(2), arguments.value(3))) {
        complain(name, "could not be installed");
        return ActionFailed;
    }
    std::printf("The service %s has been installed under: %s\n", name.toLatin1().constData(),
                QtServiceController::serviceFilePath().toLatin1().constData());
    return 0;
}

int QtServiceBase::commandUninstall()
{
    if (!controller.isInstalled()) {
        complain(name, "is not installed");
        return 0;
    }
    if (!controller.uninstall()) {
        complain(name, "could not be uninstalled");
        return ActionFailed;
    }
    std::printf("The service %s has been uninstalled.\n", name.toLatin1().constData());
    return 0;
}

int QtServiceBase::commandVersion()
{
    std::printf("The service\n\t%s\n\t%s\n\n", name.toLatin1().constData(),
                arguments.value(0).toLatin1().constData());
    std::printf("is %s", controller.isInstalled() ? "installed" : "not installed");
    std::printf(" and %s\n\n", controller.isRunning() ? "running" : "not running");
    return 0;
}

int QtServiceBase::commandExec()
{
    arguments.removeAt(1);
    const int result = run(false, arguments);
    if (result == -1) {
        warnWithLastError("The service could not be executed.");
    }
    return result;
}

// The exit code of this one and the three behind it tells nothing: they end with 0 whatever happens.
int QtServiceBase::commandTerminate()
{
    if (!controller.stop()) {
        warnWithLastError("The service could not be stopped.");
    }
    return 0;
}

int QtServiceBase::commandPause()
{
    controller.pause();
    return 0;
}

int QtServiceBase::commandResume()
{
    controller.resume();
    return 0;
}

int QtServiceBase::commandCommand()
{
    controller.sendCommand(arguments.value(2).toInt());
    return 0;
}

int QtServiceBase::commandHelp()
{
    std::printf(
        "\n%s -[i|u|e|t|p|r|c|v|h]\n"
        "\t-i(nstall) [account] [password]\t: Install the service, optionally using given account and "
        "password\n"
        "\t-u(ninstall)\t: Uninstall the service.\n"
        "\t-e(xec)\t\t: Run as a regular application. Useful for debugging.\n"
        "\t-t(erminate)\t: Stop the service.\n"
        "\t-p(ause)\t: Pause the service.\n"
        "\t-r(esume)\t: Resume a paused service.\n"
        "\t-c(ommand) num\t: Send command code num to the service.\n"
        "\t-v(ersion)\t: Print version and status information.\n"
        "\t-h(elp)   \t: Show this help\n"
        "\tNo arguments\t: Start the service.\n",
        arguments.value(0).toLatin1().constData());
    return 0;
}

int QtServiceBase::commandStart()
{
    if (run(true, arguments) != 0) {
        complain(name, "could not start");
        return StartFailed;
    }
    return 0;
}
