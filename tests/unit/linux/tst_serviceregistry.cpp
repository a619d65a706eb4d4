// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/serviceregistry.h"

#include "service/linux/account.h"
#include "service/linux/errors.h"
#include "service/linux/servicehandle.h"
#include "service/linux/unitfile.h"
#include "tests/unit/linux/fakesystemd.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

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

class TestServiceRegistry : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void createWritesTheUnit();
    void createEnablesAnAutomaticService();
    void createRefuses_data();
    void createRefuses();
    void createFindsAUnitOfAPackage();
    void createNeedsTheFolder();
    void createWaitsForADeletedServiceToStop();
    void aFullDiskLeavesNoUnit();
    void aFullDiskLeavesTheUnitAsItWas();
    void createLeavesNothingBehindWhenSystemdFails_data();
    void createLeavesNothingBehindWhenSystemdFails();
    void accounts_data();
    void accounts();
    void openNeedsAUnit();
    void deletedServiceCanBeOpenedUntilItStops();
    void deleteDisablesAndRemoves();
    void deleteFailures();
    void changesTheDescription();
    void tellsTheConfiguration();
    void wrongHandlesAreRefused();

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
    QString unitPath() const { return systemd->unitFolder() + u"/quill-mere.service"; }

    std::unique_ptr<FakeSystemd> systemd;
    Scm::Handle manager = nullptr;
};

void TestServiceRegistry::init()
{
    systemd = std::make_unique<FakeSystemd>();
    manager = openScManager(nullptr, nullptr, Scm::ManagerConnect);
    QVERIFY(manager);
}

void TestServiceRegistry::cleanup()
{
    QCOMPARE(closeServiceHandle(manager), 1);
    systemd.reset();
}

void TestServiceRegistry::createWritesTheUnit()
{
    Scm::Handle service = create();
    QVERIFY(service);
    const UnitSettings settings = unitSettings(systemd->readFile(unitPath()));
    QCOMPARE(settings.name, u"Quill Mere"_s);
    QCOMPARE(settings.displayName, u"Quill Mere"_s);
    QCOMPARE(settings.binaryPath, u"/opt/q m/quillmere"_s);
    QCOMPARE(settings.serviceType, Scm::Dword(Scm::OwnProcess));
    QCOMPARE(QFile::permissions(unitPath()) & 0x0777, QFileDevice::ReadUser | QFileDevice::WriteUser |
                                                          QFileDevice::ReadGroup | QFileDevice::ReadOther);
    QCOMPARE(systemd->calls(), QByteArrayList{"daemon-reload"});
    QVERIFY(!systemd->readFile(unitPath()).contains("password"));
    QCOMPARE(closeServiceHandle(service), 1);
}

void TestServiceRegistry::createEnablesAnAutomaticService()
{
    Scm::Handle service = create(u"Quill Mere"_s, u"/opt/quillmere"_s, Scm::AutoStart);
    QVERIFY(service);
    const QByteArrayList expected = {"daemon-reload", "enable -- quill-mere.service"};
    QCOMPARE(systemd->calls(), expected);
    closeServiceHandle(service);
}

void TestServiceRegistry::createRefuses_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("displayName");
    QTest::addColumn<uint>("error");
    QTest::newRow("no unit name") << u"--"_s << u"/x"_s << u"x"_s << uint(ErrorInvalidName);
    QTest::newRow("relative path") << u"x"_s << u"x"_s << u"x"_s << uint(ErrorInvalidName);
    QTest::newRow("no path") << u"x"_s << QString() << u"x"_s << uint(ErrorInvalidName);
    QTest::newRow("name with a folder") << u"x"_s << u"/x"_s << u"../x"_s << uint(ErrorInvalidName);
    QTest::newRow("parent folder") << u"x"_s << u"/x"_s << u".."_s << uint(ErrorInvalidName);
}

void TestServiceRegistry::createRefuses()
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

void TestServiceRegistry::createFindsAUnitOfAPackage()
{
    systemd->writeFile(systemd->vendorFolder() + u"/quill-mere.service", "[Unit]\n");
    QVERIFY(!create());
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceExists));
    Scm::Handle service = open();
    QVERIFY(service);
    QVERIFY(!deleteService(service));
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
    QVERIFY(QFile::exists(systemd->vendorFolder() + u"/quill-mere.service"));
    std::u16string text = u"Changed";
    Scm::Description description{text.data()};
    QVERIFY(!changeServiceConfig2(service, Scm::ConfigDescription, &description));
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
    QCOMPARE(systemd->readFile(systemd->vendorFolder() + u"/quill-mere.service"), QByteArray("[Unit]\n"));
    closeServiceHandle(service);
}

void TestServiceRegistry::createNeedsTheFolder()
{
    QVERIFY(QDir().rmdir(systemd->unitFolder()));
    QVERIFY(!create());
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
    QVERIFY(systemd->calls().isEmpty());
}

void TestServiceRegistry::createWaitsForADeletedServiceToStop()
{
    systemd->shows("LoadState=not-found\nActiveState=active\n");
    QVERIFY(!create());
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorMarkedForDelete));
}

void TestServiceRegistry::aFullDiskLeavesNoUnit()
{
    {
        const FullDisk full;
        QVERIFY(!create());
    }
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorWriteFault));
    QVERIFY(QDir(systemd->unitFolder()).isEmpty());
    QVERIFY(systemd->calls().isEmpty());
}

void TestServiceRegistry::aFullDiskLeavesTheUnitAsItWas()
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

void TestServiceRegistry::createLeavesNothingBehindWhenSystemdFails_data()
{
    QTest::addColumn<QByteArray>("verb");
    QTest::newRow("reload") << QByteArray("daemon-reload");
    QTest::newRow("enable") << QByteArray("enable");
}

void TestServiceRegistry::createLeavesNothingBehindWhenSystemdFails()
{
    QFETCH(QByteArray, verb);
    systemd->setExitCode(verb, 1);
    QVERIFY(!create(u"Quill Mere"_s, u"/opt/quillmere"_s, Scm::AutoStart));
    QVERIFY(QDir(systemd->unitFolder()).isEmpty());
}

void TestServiceRegistry::accounts_data()
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

void TestServiceRegistry::accounts()
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
        QCOMPARE(unitSettings(systemd->readFile(unitPath())).account, user);
        closeServiceHandle(service);
    }
}

void TestServiceRegistry::openNeedsAUnit()
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

void TestServiceRegistry::deletedServiceCanBeOpenedUntilItStops()
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

void TestServiceRegistry::deleteDisablesAndRemoves()
{
    Scm::Handle service = create();
    QCOMPARE(deleteService(service), 1);
    QVERIFY(QDir(systemd->unitFolder()).isEmpty());
    const QByteArrayList expected = {"daemon-reload", "disable -- quill-mere.service", "daemon-reload",
                                     "reset-failed -- quill-mere.service"};
    QCOMPARE(systemd->calls(), expected);
    closeServiceHandle(service);
}

void TestServiceRegistry::deleteFailures()
{
    Scm::Handle service = create();
    systemd->setExitCode("disable", 1);
    QVERIFY(!deleteService(service));
    QVERIFY(QFile::exists(unitPath()));
    closeServiceHandle(service);
}

void TestServiceRegistry::changesTheDescription()
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

    Scm::Dword needed = 0;
    QVERIFY(!queryServiceConfig2(service, Scm::ConfigDescription, nullptr, 0, &needed));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInsufficientBuffer));
    alignas(Scm::Description) std::array<quint8, 256> buffer{};
    QVERIFY(!queryServiceConfig2(service, Scm::ConfigDescription, buffer.data(), needed - 1, &needed));
    QCOMPARE(queryServiceConfig2(service, Scm::ConfigDescription, buffer.data(), needed, &needed), 1);
    QCOMPARE(QString::fromUtf16(reinterpret_cast<Scm::Description *>(buffer.data())->text), u"Größe 100 %"_s);
    QVERIFY(!queryServiceConfig2(service, 2, buffer.data(), 256, &needed));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidLevel));
    closeServiceHandle(service);
}

void TestServiceRegistry::tellsTheConfiguration()
{
    Scm::Handle service = create();
    Scm::Dword needed = 0;
    QVERIFY(!queryServiceConfig(service, nullptr, 0, &needed));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInsufficientBuffer));
    alignas(ServiceConfig) std::array<quint8, 1024> buffer{};
    QVERIFY(!queryServiceConfig(service, buffer.data(), needed - 1, &needed));
    QCOMPARE(queryServiceConfig(service, buffer.data(), needed, &needed), 1);
    const auto *config = reinterpret_cast<const ServiceConfig *>(buffer.data());
    QCOMPARE(config->serviceType, Scm::Dword(Scm::OwnProcess));
    QCOMPARE(config->startType, Scm::Dword(Scm::AutoStart)); // is-enabled answered yes
    QCOMPARE(QString::fromUtf16(config->binaryPath), u"/opt/q m/quillmere"_s);
    QCOMPARE(QString::fromUtf16(config->account), u"LocalSystem"_s);
    QCOMPARE(QString::fromUtf16(config->displayName), u"Quill Mere"_s);
    QCOMPARE(QString::fromUtf16(config->dependencies), QString());
    systemd->setExitCode("is-enabled", 1);
    QCOMPARE(queryServiceConfig(service, buffer.data(), 1024, &needed), 1);
    QCOMPARE(config->startType, Scm::Dword(Scm::DemandStart));
    closeServiceHandle(service);
}

void TestServiceRegistry::wrongHandlesAreRefused()
{
    Scm::Dword needed = 0;
    for (Scm::Handle handle : {Scm::Handle(nullptr), manager}) {
        QVERIFY(!deleteService(handle));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
        QVERIFY(!changeServiceConfig2(handle, 1, nullptr));
        QVERIFY(!queryServiceConfig(handle, nullptr, 0, &needed));
        QVERIFY(!queryServiceConfig2(handle, 1, nullptr, 0, &needed));
    }
    QVERIFY(!closeServiceHandle(nullptr));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
}

QTEST_GUILESS_MAIN(TestServiceRegistry)
#include "tst_serviceregistry.moc"
