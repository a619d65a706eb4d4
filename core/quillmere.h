// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/addressindex.h"
#include "core/radioentry.h"
#include "db/sqlite.h"
#include "service/qtservice.h"

#include <QDateTime>
#include <QObject>
#include <QSettings>
#include <QSqlDatabase>
#include <QTimer>

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <memory_resource>
#include <optional>
#include <set>

namespace QMR {

class ApplicationConnection;
class ApplicationManager;
class RegistrationManager;
class WriteGroup;
enum class WriteStep : quint8;

// The server. It owns the radio table, the database, the settings, the timers and both network managers, and
// all of its work runs on the main thread. Every operation is declared here, a section a concern; each
// concern is defined in a file of its own. No operation fails towards its caller: what goes wrong is reported
// to the service log.
class Quillmere : public QObject, public QtService<QCoreApplication>
{
    Q_OBJECT

public:
    // Copies the arguments.
    Quillmere(int argc, char **argv);
    ~Quillmere() override;
    Q_DISABLE_COPY_MOVE(Quillmere)

    // Start-up, configuration, shutdown (startup.cpp).

    // Opens the database, loads the radios, opens both sockets. A database that cannot be opened or made
    // current ends it early and leaves everything else closed. A stopped server can be started again.
    void start() override;
    void stop() override;

    // The folder of the configuration and the database, made if it was missing. Empty when the system names
    // none.
    static QString configDirectory();

    // The radio table (table.cpp).

    using RadioMap = std::pmr::map<Esn, RadioPointer>;
    const RadioMap &radios() const { return radiosByEsn; }
    const AddressIndex &addresses() const { return radiosByAddress; }

    // Null when no radio has this ESN.
    RadioPointer findRadio(const Esn &esn) const;
    // Returns the record that is in the table afterwards: the given one, or the one that had the ESN already.
    RadioPointer insertRadio(const RadioPointer &radio);
    // Returns how many entries left the table, 0 or 1.
    size_t removeRadio(const RadioPointer &radio);
    // The only places where the addresses of a record in the table change: the address index follows.
    void setAddress(const RadioPointer &radio, const QHostAddress &address);
    void setPendingAddress(const RadioPointer &radio, const QHostAddress &address);

    void loadRadioTable();
    void clearRadioTable();

    // Text forms for the log. Those of an ESN are kept, one cache a thread and form, until its radio leaves
    // the table: only to be asked for of radios that are in it.
    static QString esnText(const Esn &esn, bool separated = false);
    static void forgetEsnText(const Esn &esn);
    static void forgetEsnTexts();
    static QString suidText(const Suid &suid) { return suid.text(); }

    // Registration processing (registration.cpp).

    // protocolVersion: 1 to 3. services: already filtered to the known codes. Never refused, always
    // acknowledged to the sender's port; another radio at the sender's IPv4 address loses it first.
    void registerRadio(const Esn &esn, quint32 protocolVersion, const Suid &suid,
                       const QHostAddress &senderAddress, quint16 senderPort, bool pending,
                       const ServiceList &services);
    // Ends the registration that the radio holds at this address.
    void deregisterRadio(const Esn &esn, const QHostAddress &senderAddress);
    // The same for a radio that is known by its address alone; radios of protocol version 1 are not.
    void deregisterRadioByAddress(const QHostAddress &senderAddress);

    // The only place where a record's availability changes; the database and the applications follow.
    void setAvailability(const RadioPointer &radio, quint32 value);

    void registerPending(const RadioPointer &radio);
    void refreshPending(const RadioPointer &radio, bool changed);
    void deregisterPending(const RadioPointer &radio);

    // Supervision: the queues, the limits, the timers (supervision.cpp).

    // Orders records by when they are due, then by ESN. The keys are fields of the records: a record leaves
    // its queue before they change.
    struct EarlierDiscovery
    {
        bool operator()(const RadioPointer &a, const RadioPointer &b) const;
    };
    struct EarlierDeadline
    {
        bool operator()(const RadioPointer &a, const RadioPointer &b) const;
    };
    using DiscoveryQueue = std::pmr::set<RadioPointer, EarlierDiscovery>;
    using HeartbeatQueue = std::pmr::set<RadioPointer, EarlierDeadline>;

    const DiscoveryQueue &dueForDiscovery() const { return discoveryQueue; }
    const HeartbeatQueue &awaitingConfirmation() const { return heartbeatQueue; }

    static QDateTime nextDiscoveryTime(const RadioEntry &radio);
    // Each change of a queue arms its timer anew.
    void scheduleDiscovery(const RadioPointer &radio);
    void unscheduleDiscovery(const RadioPointer &radio);
    void scheduleHeartbeat(const RadioPointer &radio);
    void unscheduleHeartbeat(const RadioPointer &radio);

    // Puts a radio from the database where supervision begins: none counts as registered before it has been
    // heard from again.
    void reviewLoadedRadio(const RadioPointer &radio);

    void rearmDiscoveryTimer();
    void rearmHeartbeatTimer();

    const QTimer &timerForDiscovery() const { return discoveryTimer; }
    const QTimer &timerForDeadline() const { return heartbeatTimer; }
    const QTimer &timerForTimeoutCheck() const { return timeoutCheckTimer; }
    const QTimer &timerForRetry() const { return owedWritesTimer; }

    // Application requests and notifications (requests.cpp).

    // One notice a radio, in ESN order, to one application: the next of them at each call, until there is
    // none left.
    void sendRadioTable(ApplicationConnection &application);
    // Only a registered radio reported at its confirmed address is put in doubt; any other report changes
    // nothing.
    void handleRadioReport(const Esn &esn, const QHostAddress &address);
    void notifyApplications(const RadioPointer &radio);

    // The database (db/schema.cpp, db/subscribers.cpp, db/commits.cpp).

    // Brings the open database to the current schema, by replacing it where no upgrade leads there. Somebody
    // else's lock is waited for, as long as the patience lasts. False: it could not be replaced either, or is
    // left as it was, for what prevents its use may pass: a lock, a full disk, a read-only file.
    bool checkDatabase(std::chrono::milliseconds patience = Sqlite::StartPatience);

    void insertSubscriber(const RadioEntry &radio);
    // What keeps the rows from being read and may pass is waited for, as long as the patience lasts; then the
    // list is empty.
    void loadSubscribers(std::list<RadioPointer> &radios,
                         std::chrono::milliseconds patience = Sqlite::StartPatience);
    void deleteSubscriber(const RadioEntry &radio);
    // Fails for a radio that is not stored.
    void updateSubscriber(const RadioEntry &radio);

    // The group that the writes of this turn of the event loop share; null while the database is closed.
    WriteGroup *writeGroup() const { return writes.get(); }
    // Whether what leaves for a radio or an application now has to wait for the commit of that group.
    bool holdsBack() const;
    // Whether radios that have sent already are about to share the commit that others wait for: within 20 ms.
    bool commitIsComing() const;
    // Stores what is open; what has been held back for it leaves. To be called first at each event but a
    // radio's datagram, and by a turn of the group itself; by applications once no commit is coming.
    void commitWrites();

private slots:
    void eventDiscoveryTimerExpired();
    void eventTimeoutCheckTimerExpired();
    void eventHeartbeatTimerExpired();

private:
    // A check for radios that have been silent for too long, while it is under way.
    struct TimeoutCheck
    {
        QDateTime threshold;
        std::optional<Esn> last; // checked
    };

    void configure();
    void log(const QString &message, MessageType type) const;

    void replaceAddress(const RadioPointer &radio, QHostAddress RadioEntry::*held,
                        const QHostAddress &address);

    RadioPointer findHolder(const QHostAddress &senderAddress) const;
    RadioPointer registerNewRadio(const Esn &esn, quint32 protocolVersion, const Suid &suid,
                                  const QHostAddress &senderAddress, bool pending,
                                  const ServiceList &services);
    void registerKnownRadio(const RadioPointer &radio, const Suid &suid, const QHostAddress &senderAddress,
                            bool pending, const ServiceList &services);
    void sendRegistrationAck(const RadioPointer &radio, quint16 port, bool pending);
    void logRegistered(const Esn &esn, const Suid &suid, const QHostAddress &address) const;
    void logDeregistered(const Esn &esn, const Suid &suid, const QHostAddress &address) const;

    void prepareSupervision();
    // The other two timers are armed by their queues.
    void startTimeoutChecks();
    // Stops all three, and empties the queues.
    void stopSupervision();
    // Whether a radio of this availability is in the discovery queue.
    static bool isSearchedFor(quint32 availability);
    // The radio must be out of the heartbeat queue: from now on it has 17 seconds.
    void awaitConfirmation(const RadioPointer &radio);
    qint64 secondsToDiscovery() const;
    void continueTimeoutCheck();
    void lapsePending();

    bool openDatabase();
    void keepJournal();
    // False: something that may pass has kept rows from being read.
    bool readSubscribers(std::list<RadioPointer> &radios) const;
    void writeFailed(WriteStep step) const;
    void groupStored();
    void eventOwedWritesDue();
    bool retryOwedWrites(std::chrono::nanoseconds longest);

    QSqlDatabase database;
    std::unique_ptr<WriteGroup> writes; // while the database is open
    // The memory of the indexes' nodes. From a pool, a start and a stop with a million radios are quicker by
    // a quarter; without one, the sanitizer sees the use of a node that is gone.
#ifdef QUILLMERE_SANITIZED
    std::pmr::memory_resource &nodes = *std::pmr::new_delete_resource();
#else
    std::pmr::unsynchronized_pool_resource nodes;
#endif
    RadioMap radiosByEsn{&nodes};
    AddressIndex radiosByAddress{&nodes}; // of the records in radiosByEsn
    DiscoveryQueue discoveryQueue{&nodes};
    HeartbeatQueue heartbeatQueue{&nodes};
    QTimer discoveryTimer;
    QTimer heartbeatTimer;
    QDateTime lastDiscoveryRun = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
    QTimer timeoutCheckTimer;
    std::optional<TimeoutCheck> timeoutCheckUnderWay;
    // While pending registrations lapse: those with a deadline up to then.
    std::optional<QDateTime> lapsingUntil;
    QTimer owedWritesTimer;
    std::optional<Esn> lastRetried;
    std::unique_ptr<QSettings> settings;
    std::unique_ptr<ApplicationManager> applicationManager;
    std::unique_ptr<RegistrationManager> registrationManager;
    quint32 minimumDiscoveryPeriod = 30; // seconds
    bool databaseConfigured = false;
};

} // namespace QMR
