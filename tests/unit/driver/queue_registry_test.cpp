// SPDX-License-Identifier: GPL-2.0-only
// The registry of hooked request queues: hooking, switching, giving back, and the readers that writers wait for.
#include "core_view.h"
#include "guards.h"

#include <atomic>
#include <cstdlib>
#include <thread>

using rig::hookOf;
using rig::Lines;
using rig::LooseBackup;

namespace
{

QueueList* entryOf(request_queue* q)
{
    QueueList* ql = nullptr;
    while ((ql = nextQueueList(ql)))
        if (ql->rQueue == q)
            return ql;
    return nullptr;
}

std::vector<kdev_t> devicesOf(QueueList* ql)
{
    std::vector<kdev_t> list;
    DevList* dev = nullptr;
    while ((dev = nextDevList(ql, dev)))
        list.push_back(dev->kdev);
    return list;
}

u32 entries()
{
    u32 n = 0;
    QueueList* ql = nullptr;
    while ((ql = nextQueueList(ql)))
        n++;
    return n;
}

class QueueRegistry : public rig::DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        own = hookOf(sda());
        q = sda().disk().queue();
    }
    void TearDown() override
    {
        while (QueueList* ql = nextQueueList(nullptr))
            unsetQueueMRFAMS(ql->rQueue);
        DriverTest::TearDown();
    }
    make_request_fn* own = nullptr;
    request_queue* q = nullptr;
};

TEST_F(QueueRegistry, TwoPartitionsOfADiskShareOneEntryAndItsFirstFunction)
{
    LooseBackup first(sda(), 1), second(sda(), 2);
    EXPECT_EQ(setMRF(first.get(), qdrMRF), 0);
    EXPECT_EQ(setMRF(second.get(), qdrAMRF), 0);
    EXPECT_EQ(entries(), 1u);
    QueueList* ql = entryOf(q);
    ASSERT_NE(ql, nullptr);
    EXPECT_EQ(ql->realMRF, own);
    EXPECT_EQ(devicesOf(ql), (std::vector<kdev_t>{sda().device(1), sda().device(2)}));
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(QueueRegistry, QueuesOfTwoDisksHaveEntriesInTheOrderOfTheirHooking)
{
    rig::TestDisk& other = addDisk("sdb", 16, 4096, {{1, 8, 800, 512}});
    LooseBackup first(other, 1), second(sda(), 1);
    EXPECT_EQ(setMRF(first.get(), qdrAMRF), 0);
    EXPECT_EQ(setMRF(second.get(), qdrAMRF), 0);
    ASSERT_EQ(entries(), 2u);
    EXPECT_EQ(nextQueueList(nullptr)->rQueue, other.disk().queue());
    EXPECT_EQ(nextQueueList(nextQueueList(nullptr))->rQueue, q);
    unsetQueueMRFAMS(other.disk().queue());
    EXPECT_EQ(entries(), 1u);
    EXPECT_EQ(hookOf(sda()), qdrAMRF) << "the other disk's hook went, too";
}

TEST_F(QueueRegistry, HookingADeviceTwiceKeepsOneNode)
{
    LooseBackup b(sda(), 1);
    EXPECT_EQ(setMRF(b.get(), qdrMRF), 0);
    const hosted::Live before = hosted::live();
    EXPECT_EQ(setMRF(b.get(), qdrMRF), 0);
    addQueueToList(q, sda().device(1)); // past the look that setMRF takes first
    EXPECT_EQ(devicesOf(entryOf(q)), (std::vector<kdev_t>{sda().device(1)}));
    EXPECT_EQ(hosted::live(), before) << "the second node or entry was not freed";
}

TEST_F(QueueRegistry, SwitchingTheFunctionKeepsTheQueuesOwn)
{
    LooseBackup b(sda(), 1);
    EXPECT_EQ(setMRF(b.get(), qdrMRF), 0);
    EXPECT_EQ(hookOf(sda()), qdrMRF);
    EXPECT_EQ(setMRF(b.get(), qdrAMRF), 0);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(entryOf(q)->realMRF, own);
    EXPECT_EQ(getRealMRF(q), own);
    EXPECT_EQ(setMRF(b.get(), qdrMRF), 0);
    EXPECT_EQ(getRealMRF(q), own);
}

TEST_F(QueueRegistry, UnregisteredQueueAnswersWithItsCurrentFunction)
{
    EXPECT_EQ(getRealMRF(q), own);
    queue_set_make_request_fn(q, qdrAMRF);
    EXPECT_EQ(getRealMRF(q), qdrAMRF);
    queue_set_make_request_fn(q, own);
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(QueueRegistry, EntryWithoutAFunctionIsPassedOver)
{
    LooseBackup b(sda(), 1);
    ASSERT_EQ(setMRF(b.get(), qdrAMRF), 0);
    entryOf(q)->realMRF = nullptr;
    EXPECT_EQ(getRealMRF(q), qdrAMRF);
    entryOf(q)->realMRF = own;
}

TEST_F(QueueRegistry, EachQueueAnswersWithItsOwnFunction)
{
    rig::TestDisk& other = addDisk("sdb", 16, 4096, {{1, 8, 800, 512}});
    LooseBackup first(other, 1), second(sda(), 1);
    ASSERT_EQ(setMRF(first.get(), qdrAMRF), 0);
    ASSERT_EQ(setMRF(second.get(), qdrAMRF), 0);
    // All disks of these tests have one function; another one stands in, with nothing sent to it.
    make_request_fn* real = entryOf(other.disk().queue())->realMRF;
    entryOf(other.disk().queue())->realMRF = qdrMRF;
    EXPECT_EQ(getRealMRF(other.disk().queue()), qdrMRF);
    EXPECT_EQ(getRealMRF(q), own);
    entryOf(other.disk().queue())->realMRF = real;
}

TEST_F(QueueRegistry, DeviceWithoutAQueueIsNotHooked)
{
    const kdev_t dev = kdev_make(9, 5);
    hosted::mount_file_system(dev, 4096);
    Backup b{};
    ASSERT_EQ(getDiskInfo(&b.diskInfo, dev), 0);
    hosted::unmount_file_system(dev);
    takeLog();
    EXPECT_EQ(setMRF(&b, qdrMRF), 1);
    EXPECT_TRUE(rig::registryIsEmpty());
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(QueueRegistry, IsInQueueListNeedsTheQueueAndTheDevice)
{
    LooseBackup b(sda(), 1);
    ASSERT_EQ(setMRF(b.get(), qdrAMRF), 0);
    EXPECT_EQ(isInQueueList(q, sda().device(1)), 1);
    EXPECT_EQ(isInQueueList(q, sda().device(2)), 0);
    rig::TestDisk& other = addDisk("sdb", 16, 4096, {});
    EXPECT_EQ(isInQueueList(other.disk().queue(), sda().device(1)), 0);
    EXPECT_EQ(isInQueueList(nullptr, sda().device(1)), 0);
    EXPECT_EQ(atomic_read(&queueListUsers), 1) << "a reader is still counted in";
}

TEST_F(QueueRegistry, DeviceListOperationsAnswerForANullEntry)
{
    DevList node{};
    EXPECT_EQ(isInDevList(nullptr, 1), 0);
    EXPECT_EQ(addDevToList(nullptr, 1, &node), 0);
    QueueList ql{};
    listInit(&ql.devList);
    EXPECT_EQ(isInDevList(&ql, 1), 0);
    EXPECT_EQ(addDevToList(&ql, 1, &node), 1);
    EXPECT_EQ(node.kdev, 1u);
    DevList second{};
    EXPECT_EQ(addDevToList(&ql, 1, &second), 0);
    EXPECT_EQ(second.kdev, 0u);
    EXPECT_EQ(addDevToList(&ql, 2, &second), 1);
    EXPECT_EQ(devicesOf(&ql), (std::vector<kdev_t>{1, 2}));
}

TEST_F(QueueRegistry, FailedAllocationsAreRetriedUntilTheySucceed)
{
    for (unsigned failing : {1u, 2u}) {
        hosted::faults::fail_allocation(failing, unsigned(hosted::faults::Kind::kmalloc));
        addQueueToList(q, sda().device(1));
        EXPECT_EQ(hosted::faults::allocations_seen(), 3u);
        hosted::faults::clear();
        ASSERT_NE(entryOf(q), nullptr);
        EXPECT_EQ(devicesOf(entryOf(q)), (std::vector<kdev_t>{sda().device(1)}));
        unsetQueueMRFAMS(q);
        EXPECT_EQ(takeLog(), Lines{});
    }
}

TEST_F(QueueRegistry, AddingANullQueueLogsAndChangesNothing)
{
    const hosted::Live before = hosted::live();
    addQueueToList(nullptr, sda().device(1));
    EXPECT_EQ(takeLog(), (Lines{"<3>addQueueToList: Could not add queue to list (null).\n"}));
    EXPECT_EQ(hosted::live(), before);
    EXPECT_TRUE(rig::registryIsEmpty());
}

TEST_F(QueueRegistry, GivingBackTheFirstOfTwoDevicesKeepsTheHook)
{
    LooseBackup first(sda(), 1), second(sda(), 2);
    ASSERT_EQ(setMRF(first.get(), qdrAMRF), 0);
    ASSERT_EQ(setMRF(second.get(), qdrAMRF), 0);
    unSetMRFDEV(&first->diskInfo);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    ASSERT_NE(entryOf(q), nullptr);
    EXPECT_EQ(devicesOf(entryOf(q)), (std::vector<kdev_t>{sda().device(2)}));
    EXPECT_EQ(getRealMRF(q), own);
}

TEST_F(QueueRegistry, GivingBackTheLastDeviceRestoresTheQueueAndRemovesTheEntry)
{
    const hosted::Live before = hosted::live();
    LooseBackup first(sda(), 1), second(sda(), 2);
    ASSERT_EQ(setMRF(first.get(), qdrAMRF), 0);
    ASSERT_EQ(setMRF(second.get(), qdrMRF), 0);
    unSetMRFDEV(&first->diskInfo);
    unSetMRFDEV(&second->diskInfo);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(rig::registryIsEmpty());
    EXPECT_EQ(hosted::live().kmallocs, before.kmallocs);
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(QueueRegistry, GivingBackADeviceThatIsNotListedChangesNothing)
{
    LooseBackup first(sda(), 1), second(sda(), 2);
    unSetMRFDEV(&first->diskInfo);
    EXPECT_EQ(hookOf(sda()), own);
    ASSERT_EQ(setMRF(first.get(), qdrAMRF), 0);
    unSetMRFDEV(&second->diskInfo);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    EXPECT_EQ(devicesOf(entryOf(q)), (std::vector<kdev_t>{sda().device(1)}));
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(QueueRegistry, GivingBackADeviceWithoutAQueueLogsWithoutALineEnd)
{
    DiskInfo info{};
    info.kdev = kdev_make(9, 70000);
    unSetMRFDEV(&info);
    EXPECT_EQ(takeLog(), (Lines{"<4>unSetMRFDEV: Unable to get request queue for MAJOR=9, MINOR=70000 while "
                                "unsetting MRF."}));
}

TEST_F(QueueRegistry, GivingBackAWholeQueuePutsItsSessionsOutOfSyncAndKeepsThemInTheTable)
{
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 2));
    AutoMapSession* first = rig::sessionOf(sda().device(1));
    AutoMapSession* second = rig::sessionOf(sda().device(2));
    ASSERT_EQ(load_acquire(&first->state), 1u);
    ASSERT_EQ(load_acquire(&second->state), 1u);
    takeLog();
    unsetQueueMRFAMS(q);
    EXPECT_EQ(load_acquire(&first->state), 0u);
    EXPECT_EQ(load_acquire(&second->state), 0u);
    EXPECT_EQ(rig::sessionOf(sda().device(1)), first);
    EXPECT_EQ(rig::sessionOf(sda().device(2)), second);
    EXPECT_EQ(hookOf(sda()), own);
    EXPECT_TRUE(rig::registryIsEmpty());
    EXPECT_EQ(atomic_read(&amListUsers), 1);
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
    EXPECT_EQ(takeLog(), Lines{});
}

TEST_F(QueueRegistry, GivingBackAQueueLeavesSessionsOfOtherQueuesInSync)
{
    rig::TestDisk& other = addDisk("sdb", 16, 4096, {{1, 8, 800, 512}});
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 1));
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(other, 1));
    unsetQueueMRFAMS(q);
    EXPECT_EQ(load_acquire(&rig::sessionOf(other.device(1))->state), 1u);
    EXPECT_EQ(hookOf(other), qdrAMRF);
}

TEST_F(QueueRegistry, GivingBackAQueueFindsSessionsByTheFlatIndex)
{
    ASSERT_NO_FATAL_FAILURE(rig::trackDevice(sda(), 1));
    rig::TestDisk& other = addDisk("sdb", 16, 4096, {});
    addQueueToList(other.disk().queue(), kdev_make(7, 257));       // the slot of 8:1
    addQueueToList(other.disk().queue(), kdev_make(255, 0xFFFFF)); // beyond the table
    unsetQueueMRFAMS(other.disk().queue());
    EXPECT_EQ(load_acquire(&rig::sessionOf(sda().device(1))->state), 0u);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
}

TEST_F(QueueRegistry, GivingBackAnUnregisteredQueueChangesNothing)
{
    queue_set_make_request_fn(q, qdrAMRF);
    unsetQueueMRFAMS(q);
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    queue_set_make_request_fn(q, own);
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(QueueRegistry, GivingBackANullQueueLogs)
{
    unsetQueueMRFAMS(nullptr);
    EXPECT_EQ(takeLog(),
              (Lines{"<3>unsetQueueMRFAMS: Could not unset MRFS for request queue because queue was null.\n"}));
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

TEST_F(QueueRegistry, GivingBackAQueueReleasesItWithTheStateSavedAtTheInnerLock)
{
    // The calling thread's interrupt state: what a lock taken now would save.
    auto interruptsOff = [] {
        unsigned long flags;
        spin_lock_irqsave(&busyLock, &flags);
        spin_unlock_irqrestore(&busyLock, flags);
        return flags;
    };
    unsigned long flags;
    spin_lock_irqsave(&busyLock, &flags);
    spin_unlock_irqrestore(&busyLock, 0);
    unsetQueueMRFAMS(q);
    EXPECT_EQ(interruptsOff(), 0ul) << "a queue that is not registered";
    addQueueToList(q, sda().device(1));
    unsetQueueMRFAMS(q);
    EXPECT_EQ(interruptsOff(), 1ul);
    spin_lock_irqsave(&busyLock, &flags);
    spin_unlock_irqrestore(&busyLock, 0);
}

TEST_F(QueueRegistry, HooksAndRestoresAQueueWithoutALock)
{
    rig::TestDisk& disk = addDisk("sdb", 16, 4096, {{1, 8, 800, 512}}, false);
    make_request_fn* itsOwn = hookOf(disk);
    LooseBackup b(disk, 1);
    EXPECT_EQ(setMRF(b.get(), qdrAMRF), 0);
    EXPECT_EQ(hookOf(disk), qdrAMRF);
    EXPECT_EQ(getRealMRF(disk.disk().queue()), itsOwn);
    unSetMRFDEV(&b->diskInfo);
    EXPECT_EQ(hookOf(disk), itsOwn);
}

// Runs `operation` on a thread of its own and says whether it is through after a while.
class Running
{
  public:
    explicit Running(std::function<void()> operation)
        : thread_([this, operation = std::move(operation)] {
              operation();
              done_ = true;
          })
    {
    }
    ~Running() { thread_.join(); }
    bool stillWaiting()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return !done_;
    }
    bool done() const { return done_; }

  private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

TEST_F(QueueRegistry, AWriterGoesOnOnlyAfterEveryReaderHasLeft)
{
    enterUsers(&queueListUsers, &queueListUsersLock);
    enterUsers(&queueListUsers, &queueListUsersLock);
    Running writer([] {
        unsigned long flags;
        waitForQueueListUsers(&flags);
        EXPECT_EQ(atomic_read(&queueListUsers), 1);
        spin_unlock_irqrestore(&queueListUsersLock, flags);
    });
    EXPECT_TRUE(writer.stillWaiting());
    leaveUsers(&queueListUsers);
    EXPECT_TRUE(writer.stillWaiting());
    leaveUsers(&queueListUsers);
    EXPECT_TRUE(eventually([&] { return writer.done(); }));
}

TEST_F(QueueRegistry, NoReaderEntersWhileAWriterHoldsIt)
{
    unsigned long flags;
    waitForQueueListUsers(&flags);
    Running reader([&] { EXPECT_EQ(getRealMRF(q), own); });
    EXPECT_TRUE(reader.stillWaiting());
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
    spin_unlock_irqrestore(&queueListUsersLock, flags);
    EXPECT_TRUE(eventually([&] { return reader.done(); }));
}

TEST_F(QueueRegistry, EachWriterWaitsForTheReaders)
{
    LooseBackup b(sda(), 1);
    ASSERT_EQ(setMRF(b.get(), qdrAMRF), 0);
    const std::function<void()> writers[] = {[&] { addQueueToList(q, sda().device(2)); },
                                             [&] { unSetMRFDEV(&b->diskInfo); }, [&] { unsetQueueMRFAMS(q); }};
    for (const auto& operation : writers) {
        enterUsers(&queueListUsers, &queueListUsersLock);
        Running writer(operation);
        EXPECT_TRUE(writer.stillWaiting());
        leaveUsers(&queueListUsers);
        EXPECT_TRUE(eventually([&] { return writer.done(); }));
    }
    EXPECT_TRUE(rig::registryIsEmpty());
}

TEST_F(QueueRegistry, SwitchingTheFunctionOfARegisteredDeviceWaitsForNoReader)
{
    LooseBackup b(sda(), 1);
    ASSERT_EQ(setMRF(b.get(), qdrAMRF), 0);
    enterUsers(&queueListUsers, &queueListUsersLock);
    {
        Running switching([&] { EXPECT_EQ(setMRF(b.get(), qdrMRF), 0); });
        EXPECT_TRUE(eventually([&] { return switching.done(); }));
        leaveUsers(&queueListUsers);
    }
    EXPECT_EQ(hookOf(sda()), qdrMRF);
}

// Otherwise the entry could go between the look at the registry and the store.
TEST_F(QueueRegistry, AHookIsStoredWhileNoWriterHoldsTheRegistry)
{
    LooseBackup b(sda(), 1);
    ASSERT_EQ(setMRF(b.get(), qdrAMRF), 0);
    unsigned long flags;
    waitForQueueListUsers(&flags);
    Running switching([&] { EXPECT_EQ(setMRF(b.get(), qdrMRF), 0); });
    EXPECT_TRUE(switching.stillWaiting());
    EXPECT_EQ(hookOf(sda()), qdrAMRF);
    spin_unlock_irqrestore(&queueListUsersLock, flags);
    ASSERT_TRUE(eventually([&] { return switching.done(); }));
    EXPECT_EQ(hookOf(sda()), qdrMRF);
}

TEST_F(QueueRegistry, AWriterWaitsUntilAHookIsStored)
{
    LooseBackup b(sda(), 1);
    ASSERT_EQ(setMRF(b.get(), qdrAMRF), 0);
    unsigned long flags;
    spin_lock_irqsave(queue_lock(q), &flags);
    Running switching([&] { EXPECT_EQ(setMRF(b.get(), qdrMRF), 0); });
    EXPECT_TRUE(switching.stillWaiting());
    Running writer([&] { addQueueToList(q, sda().device(2)); });
    EXPECT_TRUE(writer.stillWaiting());
    EXPECT_EQ(devicesOf(entryOf(q)), std::vector<kdev_t>{sda().device(1)});
    spin_unlock_irqrestore(queue_lock(q), flags);
    ASSERT_TRUE(eventually([&] { return switching.done() && writer.done(); }));
}

TEST_F(QueueRegistry, EveryAccessToAQueuesFunctionTakesItsLock)
{
    LooseBackup b(sda(), 1);
    const std::function<void()> accesses[] = {
        [&] { EXPECT_EQ(getRealMRF(q), own); },          [&] { addQueueToList(q, sda().device(1)); },
        [&] { EXPECT_EQ(setMRF(b.get(), qdrAMRF), 0); }, [&] { unSetMRFDEV(&b->diskInfo); },
        [&] { addQueueToList(q, sda().device(1)); },     [&] { unsetQueueMRFAMS(q); }};
    for (const auto& operation : accesses) {
        unsigned long flags;
        spin_lock_irqsave(queue_lock(q), &flags);
        Running access(operation);
        EXPECT_TRUE(access.stillWaiting());
        spin_unlock_irqrestore(queue_lock(q), flags);
        EXPECT_TRUE(eventually([&] { return access.done(); }));
    }
}

TEST_F(QueueRegistry, AHookedQueueIsAlwaysRegisteredWhileHookersAndUnhookersRace)
{
    LooseBackup first(sda(), 1), second(sda(), 2);
    std::atomic<bool> stop{false};
    std::thread hooker([&] {
        for (int i = 0; i < 300; i++)
            setMRF(i % 2 ? first.get() : second.get(), i % 3 ? qdrAMRF : qdrMRF);
        stop = true;
    });
    std::thread unhooker([&] {
        for (int i = 0; !stop; i++) {
            if (i % 2)
                unsetQueueMRFAMS(q);
            else
                unSetMRFDEV(&first->diskInfo);
        }
    });
    std::thread writer([&] {
        for (u32 i = 0; !stop; i++)
            EXPECT_EQ(sda().writeBlock(1, i % 100, (unsigned char)(i)), 0);
    });
    while (!stop) {
        unsigned long flags;
        waitForQueueListUsers(&flags);
        const bool hooked = hookOf(sda()) != own;
        const bool registered = entryOf(q) != nullptr;
        spin_unlock_irqrestore(&queueListUsersLock, flags);
        ASSERT_TRUE(!hooked || registered);
    }
    hooker.join();
    unhooker.join();
    writer.join();
    EXPECT_EQ(atomic_read(&queueListUsers), 1);
}

class QueueRegistryDeathTest : public QueueRegistry
{
  protected:
    void SetUp() override
    {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        QueueRegistry::SetUp();
    }
};

TEST_F(QueueRegistryDeathTest, RegisteredQueueWithoutItsFunctionStopsTheKernel)
{
    auto lose = [&] {
        hosted::log_set_sink([](std::string_view line) { fprintf(stderr, "%.*s", int(line.size()), line.data()); });
        LooseBackup b(sda(), 1);
        setMRF(b.get(), qdrAMRF);
        entryOf(q)->realMRF = nullptr;
        unsetQueueMRFAMS(q);
    };
    EXPECT_DEATH(lose(), "<2>unsetQueueMRFAMS: Could not find real make request fn for queue\\.\nhosted kernel: kernel "
                         "BUG at .*queue_registry\\.cpp");
}

// In a process of its own, which touches the registry no further: no writer would ever find it idle again.
TEST_F(QueueRegistryDeathTest, FunctionOfANullQueueLeavesTheCountOneLower)
{
    auto ask = [] {
        EXPECT_EQ(getRealMRF(nullptr), nullptr);
        EXPECT_EQ(hosted::log_lines(), (Lines{"<4>getRealMRF: Can't get MRF on NULL queue.\n"}));
        EXPECT_EQ(atomic_read(&queueListUsers), 0);
        fflush(stdout);
        std::_Exit(HasFailure() ? 1 : 42);
    };
    EXPECT_EXIT(ask(), testing::ExitedWithCode(42), "");
}

} // namespace
