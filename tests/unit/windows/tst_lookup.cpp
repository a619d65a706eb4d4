// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/windows/lookup.h"

#include "service/platform.h"

#include <QDir>
#include <QLibrary>
#include <QTest>

#include <cstring>

#include <windows.h>

using namespace Qt::StringLiterals;

namespace {

QFunctionPointer nothing(const char *)
{
    return nullptr;
}

BOOL WINAPI failing(HWND, wchar_t *, int, BOOL)
{
    return FALSE;
}

struct FolderCall
{
    HWND owner;
    int folder;
    BOOL create;
};
FolderCall seen;

BOOL WINAPI recording(HWND owner, wchar_t *path, int folder, BOOL create)
{
    seen = {owner, folder, create};
    std::memcpy(path, L"D:\\Data", sizeof L"D:\\Data");
    return TRUE;
}

template<typename Function>
Windows::Resolver giving(Function function)
{
    return [function](const char *name) {
        return qstrcmp(name, "SHGetSpecialFolderPathW") == 0 ? reinterpret_cast<QFunctionPointer>(function)
                                                             : nullptr;
    };
}

} // namespace

class TestLookup : public QObject
{
    Q_OBJECT

private slots:
    void asksForTheServiceFunctionsInTheirOrderAndFindsThemAll()
    {
        QList<QByteArray> names;
        QList<QByteArray> missing;
        QLibrary advapi32(u"advapi32"_s);
        Scm::Functions functions{};
        Windows::provide(functions, [&](const char *name) {
            const QFunctionPointer function = advapi32.resolve(name);
            names.append(name);
            if (!function) {
                missing.append(name);
            }
            return function;
        });
        QCOMPARE(names, (QList<QByteArray>{
                            "RegisterServiceCtrlHandlerW", "SetServiceStatus", "ChangeServiceConfig2W",
                            "CloseServiceHandle", "CreateServiceW", "OpenSCManagerW", "DeleteService",
                            "OpenServiceW", "QueryServiceStatus", "StartServiceCtrlDispatcherW",
                            "StartServiceW", "ControlService", "DeregisterEventSource", "ReportEventW",
                            "RegisterEventSourceW", "QueryServiceConfigW", "QueryServiceConfig2W"}));
        QCOMPARE(missing, QList<QByteArray>());
        const auto is = [&advapi32](auto function, const char *name) {
            return reinterpret_cast<QFunctionPointer>(function) == advapi32.resolve(name);
        };
        QVERIFY(is(functions.registerServiceCtrlHandler, "RegisterServiceCtrlHandlerW"));
        QVERIFY(is(functions.setServiceStatus, "SetServiceStatus"));
        QVERIFY(is(functions.changeServiceConfig2, "ChangeServiceConfig2W"));
        QVERIFY(is(functions.closeServiceHandle, "CloseServiceHandle"));
        QVERIFY(is(functions.createService, "CreateServiceW"));
        QVERIFY(is(functions.openScManager, "OpenSCManagerW"));
        QVERIFY(is(functions.deleteService, "DeleteService"));
        QVERIFY(is(functions.openService, "OpenServiceW"));
        QVERIFY(is(functions.queryServiceStatus, "QueryServiceStatus"));
        QVERIFY(is(functions.startServiceCtrlDispatcher, "StartServiceCtrlDispatcherW"));
        QVERIFY(is(functions.startService, "StartServiceW"));
        QVERIFY(is(functions.controlService, "ControlService"));
        QVERIFY(is(functions.deregisterEventSource, "DeregisterEventSource"));
        QVERIFY(is(functions.reportEvent, "ReportEventW"));
        QVERIFY(is(functions.registerEventSource, "RegisterEventSourceW"));
        QVERIFY(is(functions.queryServiceConfig, "QueryServiceConfigW"));
        QVERIFY(is(functions.queryServiceConfig2, "QueryServiceConfig2W"));
    }

    void functionsThatTheSystemLacksAreNull()
    {
        Scm::Functions functions{};
        platform.provide(functions);
        QVERIFY(functions.openScManager);
        Windows::provide(functions, nothing);
        QVERIFY(!functions.openScManager);
        QVERIFY(!functions.queryServiceConfig2);
    }

    void folderIsThatOfAllUsersAndIsNotMade()
    {
        const std::optional<QString> folder = Windows::commonDataFolder(giving(recording));
        QVERIFY(folder.has_value());
        QCOMPARE(folder.value(), u"D:\\Data"_s);
        QCOMPARE(seen.owner, HWND(nullptr));
        QCOMPARE(seen.folder, 35);
        QCOMPARE(seen.create, FALSE);
    }

    void folderOfThisSystemIsThere()
    {
        const std::optional<QString> folder = platform.commonDataFolder();
        QVERIFY(folder.has_value());
        QVERIFY(QDir(folder.value()).exists());
    }

    void thereIsNoFolderWhereTheFunctionIsMissing()
    {
        QVERIFY(!Windows::commonDataFolder(nothing).has_value());
    }

    void folderIsEmptyWhereTheFunctionFails()
    {
        const std::optional<QString> folder = Windows::commonDataFolder(giving(failing));
        QVERIFY(folder.has_value());
        QVERIFY(folder->isEmpty());
    }
};

QTEST_APPLESS_MAIN(TestLookup)
#include "tst_lookup.moc"
