// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/testservice.h"

#include <utility>

using namespace Qt::StringLiterals;

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

TestService::TestService(const QStringList &options) : TestService(options, u"Quill Mere"_s)
{
}

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

void TestService::start()
{
    called(u"start"_s);
}

void TestService::stop()
{
    called(u"stop"_s);
}

void TestService::pause()
{
    called(u"pause"_s);
}

void TestService::resume()
{
    called(u"resume"_s);
}

void TestService::processCommand(int code)
{
    called(u"processCommand %1"_s.arg(code));
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
