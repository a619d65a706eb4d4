// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/testservice.h"

#include <utility>

namespace {

std::vector<QByteArray> commandLine(const QStringList &options)
{
    std::vector<QByteArray> line{"/opt/quill/quillmere"};
    for (const QString &option : options) {
        line.push_back(option.toLocal8Bit());
    }
    return line;
}

std::vector<char *> pointers(std::vector<QByteArray> &line)
{
    std::vector<char *> result;
    for (QByteArray &argument : line) {
        result.push_back(argument.data());
    }
    result.push_back(nullptr);
    return result;
}

} // namespace

TestService::TestService(const QStringList &options, const QString &serviceName)
    : TestService(serviceName, commandLine(options))
{
}

TestService::TestService(const QString &serviceName, std::vector<QByteArray> line)
    : QtService<QCoreApplication>(static_cast<int>(line.size()), pointers(line).data(), serviceName)
{
}

QStringList TestService::takeCalls()
{
    return std::exchange(calls, {});
}

void TestService::processCommand(int code)
{
    called(QStringLiteral("processCommand %1").arg(code));
}

void TestService::createApplication(int &argc, char **argv)
{
    if (withoutApplication) {
        return;
    }
    applicationArguments.clear();
    for (int i = 0; i < argc; ++i) {
        applicationArguments.append(QString::fromLocal8Bit(argv[i]));
    }
    if (argv[argc]) {
        qFatal("the argument vector does not end with a null pointer");
    }
    QtService<QCoreApplication>::createApplication(argc, argv);
}

void TestService::called(const QString &operation)
{
    allOnMainThread = allOnMainThread && std::this_thread::get_id() == mainThread;
    calls.append(operation);
    if (onCall) {
        onCall(operation);
    }
}
