// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/services.h"

#include "service/linux/errors.h"
#include "service/linux/systemd.h"
#include "service/linux/unitfile.h"
#include "tests/unit/linux/fakesystemd.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <pwd.h>
#include <sys/resource.h>
#include <systemd/sd-bus-protocol.h>
#include <unistd.h>

#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

constexpr uid_t Nobody = 65534;

// While it lives this process writes nothing to any file.
class FullDisk
{
public:
    FullDisk() : before(::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit none = saved;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_FSIZE, &none);
    }
    ~FullDisk()
    {
        setrlimit(RLIMIT_FSIZE, &saved);
        (void)::signal(SIGXFSZ, before);
    }
    Q_DISABLE_COPY_MOVE(FullDisk)

private:
    rlimit saved{};
    void (*before)(int);
};

} // namespace

class TestServices : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        systemd = std::make_unique<FakeSystemd>();
        manager = openScManager(nullptr, nullptr, Scm::ManagerConnect);
        QVERIFY(manager);
    }

    void cleanup()
    {
        QCOMPARE(closeServiceHandle(manager), 1);
        systemd.reset();
    }

    void onlyRootHasFullAccess()
    {
        const bool isRoot = ::geteuid() == 0;
        QCOMPARE(::seteuid(isRoot ? Nobody : ::geteuid()), 0);
        Scm::Handle full = openScManager(nullptr, nullptr, Scm::ManagerAllAccess);
        const Scm::Dword error = Linux::lastError();
        Scm::Handle connected = openScManager(nullptr, nullptr, Scm::ManagerConnect);
        QCOMPARE(::seteuid(isRoot ? 0 : ::geteuid()), 0);
        QVERIFY(!full);
        QCOMPARE(error, Scm::Dword(Scm::ErrorAccessDenied));
        QCOMPARE(closeServiceHandle(connected), 1);
        if (isRoot) {
            full = openScManager(nullptr, nullptr, Scm::ManagerAllAccess);
            QCOMPARE(closeServiceHandle(full), 1);
        }
    }

    void createWritesTheUnit()
    {
        Scm::Handle service = create();
        QVERIFY(service);
        const QByteArrayList unit = systemd->readFile(unitPath()).split('\n');
        for (const char *line : {"# The service \"Quill Mere\" under systemd.", "Description=Quill Mere",
                                 "ExecStart=:\"/opt/q m/quillmere\"",
                                 "StateDirectory=\"Brackwater/Quill Mere\"", "RuntimeDirectory=quill-mere"}) {
            QVERIFY2(unit.contains(line), line);
        }
        QCOMPARE(QFile::permissions(unitPath()) & 0x0777, QFileDevice::ReadUser | QFileDevice::WriteUser |
                                                              QFileDevice::ReadGroup |
                                                              QFileDevice::ReadOther);
        QCOMPARE(systemd->calls(), QByteArrayList{"Reload"});
        QVERIFY(!systemd->readFile(unitPath()).contains("password"));
        QCOMPARE(closeServiceHandle(service), 1);
    }

    void createEnablesAnAutomaticService()
    {
        Scm::Handle service = create(u"Quill Mere"_s, u"/opt/quillmere"_s, Scm::AutoStart);
        QVERIFY(service);
        const QByteArrayList expected = {"Reload", "EnableUnitFiles [quill-mere.service] false false",
                                         "Reload"};
        QCOMPARE(systemd->calls(), expected);
        closeServiceHandle(service);
    }

    void createRefuses_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("displayName");
        QTest::addColumn<uint>("error");
        QTest::newRow("no unit name") << u"--"_s << u"/x"_s << u"x"_s << uint(ErrorInvalidName);
        QTest::newRow("relative path") << u"x"_s << u"x"_s << u"x"_s << uint(ErrorInvalidName);
        QTest::newRow("no path") << u"x"_s << QString() << u"x"_s << uint(ErrorInvalidName);
        QTest::newRow("not UTF-8") << u"x"_s << u"/x\ufffd"_s << u"x"_s << uint(ErrorInvalidName);
        QTest::newRow("name with a folder") << u"x"_s << u"/x"_s << u"../x"_s << uint(ErrorInvalidName);
        QTest::newRow("parent folder") << u"x"_s << u"/x"_s << u".."_s << uint(ErrorInvalidName);
    }

    void createRefuses()
    {
        QFETCH(QString, name);
        QFETCH(QString, path);
        QFETCH(QString, displayName);
        QFETCH(uint, error);
        const std::u16string display = displayName.toStdU16String();
        QVERIFY(!create(name, path, Scm::DemandStart, nullptr, display.c_str()));
        QCOMPARE(Linux::lastError(), error);
        QVERIFY(QDir(systemd->unitFolder()).isEmpty());
        QVERIFY(systemd->calls().isEmpty());
    }

    void createFindsAUnitOfAPackage()
    {
        systemd->writeFile(systemd->vendorFolder() + u"/quill-mere.service", "[Unit]\n");
        QVERIFY(!create());
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceExists));
        refusesChanges();
        QCOMPARE(systemd->readFile(systemd->vendorFolder() + u"/quill-mere.service"), QByteArray("[Unit]\n"));
    }

    void createNeedsTheFolder()
    {
        QVERIFY(QDir().rmdir(systemd->unitFolder()));
        QVERIFY(!create());
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        QVERIFY(systemd->calls().isEmpty());
    }

    void createWaitsForADeletedServiceToStop()
    {
        systemd->shows("LoadState=not-found\nActiveState=active\n");
        QVERIFY(!create());
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorMarkedForDelete));
    }

    void aFullDiskLeavesNoUnit()
    {
        {
            const FullDisk full;
            QVERIFY(!create());
        }
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorWriteFault));
        QVERIFY(QDir(systemd->unitFolder()).isEmpty());
        QVERIFY(systemd->calls().isEmpty());
    }

    void aFullDiskLeavesTheUnitAsItWas()
    {
        Scm::Handle service = create();
        QVERIFY(service);
        const QByteArray before = systemd->readFile(unitPath());
        Scm::Description description{const_cast<Scm::Char *>(u"another")};
        {
            const FullDisk full;
            QVERIFY(!changeServiceConfig2(service, Scm::ConfigDescription, &description));
        }
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorWriteFault));
        QCOMPARE(systemd->readFile(unitPath()), before);
        closeServiceHandle(service);
    }

    void createLeavesNothingBehindWhenSystemdFails_data()
    {
        QTest::addColumn<QByteArray>("verb");
        QTest::newRow("reload") << QByteArray("Reload");
        QTest::newRow("enable") << QByteArray("EnableUnitFiles");
    }

    void createLeavesNothingBehindWhenSystemdFails()
    {
        QFETCH(QByteArray, verb);
        systemd->fails(verb, SD_BUS_ERROR_FAILED);
        QVERIFY(!create(u"Quill Mere"_s, u"/opt/quillmere"_s, Scm::AutoStart));
        QVERIFY(QDir(systemd->unitFolder()).isEmpty());
    }

    void accounts_data()
    {
        QTest::addColumn<QString>("account");
        QTest::addColumn<QString>("user");
        const passwd *self = ::getpwuid(::geteuid());
        QVERIFY(self);
        const QString name = QString::fromLocal8Bit(self->pw_name);
        QTest::newRow("local") << u".\\"_s + name << name;
        QTest::newRow("bare") << name << name;
        QTest::newRow("unknown") << u".\\no-such-user-here"_s << QString();
        QTest::newRow("unknown in a domain") << u"DOMAIN\\"_s + name << QString();
        QTest::newRow("empty") << u".\\"_s << QString();
        QTest::newRow("number") << u".\\0"_s << QString();
    }

    void accounts()
    {
        QFETCH(QString, account);
        QFETCH(QString, user);
        QCOMPARE(unitUser(account).value_or(QString()), user);
        const std::u16string text = account.toStdU16String();
        Scm::Handle service = create(u"Quill Mere"_s, u"/opt/quillmere"_s, Scm::DemandStart, text.c_str());
        if (user.isEmpty()) {
            QVERIFY(!service);
            QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidServiceAccount));
            QVERIFY(!QFile::exists(unitPath()));
        } else {
            QVERIFY(service);
            QVERIFY(systemd->readFile(unitPath()).contains(QByteArray("\nUser=" + user.toUtf8() + '\n')));
            closeServiceHandle(service);
        }
    }

    void openNeedsAUnit()
    {
        QVERIFY(!open());
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceDoesNotExist));
        QVERIFY(!openService(manager, u"//", 0));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceDoesNotExist));
        closeServiceHandle(create());
        Scm::Handle service = open();
        QVERIFY(service);
        closeServiceHandle(service);
        QVERIFY(!create());
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceExists));
    }

    void deletedServiceCanBeOpenedUntilItStops()
    {
        systemd->shows("LoadState=not-found\nActiveState=active\n");
        Scm::Handle service = open();
        QVERIFY(service);
        QVERIFY(!deleteService(service));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorMarkedForDelete));
        closeServiceHandle(service);
        systemd->shows("LoadState=not-found\nActiveState=inactive\n");
        QVERIFY(!open());
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceDoesNotExist));
    }

    void deleteDisablesAndRemoves()
    {
        Scm::Handle service = create();
        QCOMPARE(deleteService(service), 1);
        QVERIFY(QDir(systemd->unitFolder()).isEmpty());
        const QByteArrayList expected = {"Reload", "DisableUnitFiles [quill-mere.service] false", "Reload",
                                         "ResetFailedUnit quill-mere.service"};
        QCOMPARE(systemd->calls(), expected);
        closeServiceHandle(service);
    }

    // A rescue system, say, that works on the disk of another.
    void deletesWhereNoSystemdRuns()
    {
        Scm::Handle service = create();
        const QString wants = systemd->unitFolder() + u"/multi-user.target.wants";
        const QString link = wants + u"/quill-mere.service";
        QVERIFY(QDir().mkdir(wants) && QFile::link(unitPath(), link));
        places().managerSocket = "/nowhere";
        places().busSocket = "/nowhere";
        QVERIFY(QDir().mkpath(systemd->runtimeFolder() + u"/systemd/system"));
        QVERIFY(!deleteService(service)); // it runs, but cannot be reached
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorManagerUnavailable));
        QVERIFY(QFile::exists(unitPath()));
        QVERIFY(QDir().rmdir(systemd->runtimeFolder() + u"/systemd/system"));
        QCOMPARE(deleteService(service), 1);
        QVERIFY(!QFile::exists(unitPath()));
        QVERIFY(!QFileInfo(link).isSymLink());
        closeServiceHandle(service);
    }

    void deleteFailures()
    {
        QVERIFY(QDir().mkdir(systemd->unitFolder() + u"/folder.service"));
        Scm::Handle folder = openService(manager, u"folder", Scm::ServiceAllAccess);
        QVERIFY(folder);
        QVERIFY(!deleteService(folder)); // a folder is not removed as a file is
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        closeServiceHandle(folder);

        Scm::Handle service = create();
        systemd->fails("DisableUnitFiles", SD_BUS_ERROR_FAILED);
        QVERIFY(!deleteService(service));
        QVERIFY(QFile::exists(unitPath()));
        closeServiceHandle(service);
    }

    void changesTheDescription()
    {
        Scm::Handle service = create();
        std::u16string text = u"Größe 100 %";
        Scm::Description description{text.data()};
        QCOMPARE(changeServiceConfig2(service, Scm::ConfigDescription, &description), 1);
        QVERIFY(systemd->readFile(unitPath()).contains("\nDescription=Größe 100 %%\n"));
        QCOMPARE(systemd->calls().size(), 2);

        QVERIFY(!changeServiceConfig2(service, 2, &description));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidLevel));
        QVERIFY(!changeServiceConfig2(service, Scm::ConfigDescription, nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidParameter));

        systemd->writeFile(unitPath(), {}); // what cannot be read looks the same
        QVERIFY(!changeServiceConfig2(service, Scm::ConfigDescription, &description));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        QCOMPARE(systemd->calls().size(), 2);
        closeServiceHandle(service);
    }

    // A mask, say.
    void leavesAnAdministratorsLinkAlone()
    {
        QVERIFY(QFile::link(u"/dev/null"_s, unitPath()));
        QVERIFY(!create());
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceExists));
        refusesChanges();
        QCOMPARE(QFile::symLinkTarget(unitPath()), u"/dev/null"_s);
        QVERIFY(systemd->calls().isEmpty());
    }

    void wrongHandlesAreRefused()
    {
        for (Scm::Handle handle : {Scm::Handle(nullptr), manager}) {
            QVERIFY(!deleteService(handle));
            QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
            QVERIFY(!changeServiceConfig2(handle, 1, nullptr));
            QVERIFY(!queryServiceStatus(handle, nullptr));
            QVERIFY(!startService(handle, 0, nullptr));
            QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
        }
        QVERIFY(!closeServiceHandle(nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
    }

private:
    Scm::Handle create(const QString &name = u"Quill Mere"_s, const QString &path = u"/opt/q m/quillmere"_s,
                       Scm::Dword startType = Scm::DemandStart, const char16_t *account = nullptr,
                       const char16_t *displayName = nullptr)
    {
        return createService(manager, reinterpret_cast<const Scm::Char *>(name.utf16()), displayName,
                             Scm::ServiceAllAccess, Scm::OwnProcess, startType, Scm::ErrorControlNormal,
                             reinterpret_cast<const Scm::Char *>(path.utf16()), nullptr, nullptr, nullptr,
                             account, u"password");
    }
    Scm::Handle open() { return openService(manager, u"Quill Mere", Scm::ServiceQueryConfig); }
    // Neither deletes a unit that is not this program's nor describes it anew.
    void refusesChanges()
    {
        Scm::Handle service = open();
        QVERIFY(service);
        QVERIFY(!deleteService(service));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        std::u16string text = u"Changed";
        Scm::Description description{text.data()};
        QVERIFY(!changeServiceConfig2(service, Scm::ConfigDescription, &description));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        QCOMPARE(closeServiceHandle(service), 1);
    }
    QString unitPath() const { return systemd->unitFolder() + u"/quill-mere.service"; }

    std::unique_ptr<FakeSystemd> systemd;
    Scm::Handle manager = nullptr;
};

QTEST_GUILESS_MAIN(TestServices)
#include "tst_services.moc"
