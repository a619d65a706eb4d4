// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtservicebase.h"

#include "service/qtservicestarter.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>
#include <vector>

namespace {

constexpr qsizetype MaximumNameLength = 255;

QtServiceBase *serviceObject = nullptr;

// The name as every platform call will see it.
QString cleaned(QString name)
{
    if (name.size() > MaximumNameLength) {
        qWarning("QtService: 'name' is longer than 255 characters.");
        name.truncate(MaximumNameLength);
    }
    if (name.contains(u'\\')) {
        qWarning("QtService: 'name' contains backslashes '\\'.");
        // Deliberately U+0000: a platform call that takes the name then sees it end at the first backslash.
        name.replace(u'\\', QChar(0));
    }
    return name;
}

// A command line in the local 8-bit encoding, as an application object wants it: it refers to it all its
// life.
class CommandLine
{
public:
    explicit CommandLine(const QStringList &arguments)
    {
        for (const QString &argument : arguments) {
            texts.push_back(argument.toLocal8Bit());
        }
        for (QByteArray &text : texts) {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
        count = static_cast<int>(texts.size());
    }

    int count = 0;
    char **vector() { return pointers.data(); }

private:
    std::vector<QByteArray> texts;
    std::vector<char *> pointers;
};

} // namespace

QtServiceBase::QtServiceBase(int argc, char **argv, const QString &serviceName) : name(cleaned(serviceName))
{
    serviceObject = this;
    for (int i = 0; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
}

QtServiceBase::~QtServiceBase()
{
    if (serviceObject == this) {
        serviceObject = nullptr;
    }
}

QtServiceBase *QtServiceBase::instance()
{
    return serviceObject;
}

int QtServiceBase::exec()
{
    const QString option = arguments.value(1);
    if (option == u"-e" || option == u"-exec") {
        QStringList runArguments = arguments;
        runArguments.removeAt(1);
        return run(false, runArguments);
    }
    std::fprintf(stderr, "The service %s could not start\n", name.toLatin1().constData());
    return -4;
}

int QtServiceBase::run(bool asService, const QStringList &runArguments)
{
    if (asService) {
        return -1;
    }
    CommandLine line(runArguments);
    createApplication(line.count, line.vector());
    if (!QCoreApplication::instance()) {
        return -1;
    }
    QtServiceStarter starter(this);
    QTimer::singleShot(0, &starter, &QtServiceStarter::slotStart);
    const int result = executeApplication();
    delete QCoreApplication::instance();
    return result;
}
