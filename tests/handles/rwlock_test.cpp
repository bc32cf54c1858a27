// RWLock results seen from a single thread (plus one helper thread where the
// answer depends on who asks), and RCObject's count.
#include <gtest/gtest.h>

#include <thread>

#include <tvcommonutil.h>

TEST(RWLock, NamesAndReferenceCount) {
    RWLock named(true, "Dir_Data_lock", true);
    EXPECT_STREQ("Dir_Data_lock", named.GetLockName());
    named.SetLockName(nullptr);
    EXPECT_STREQ("UNNAMED LOCK", named.GetLockName());
    RWLock* heap = new RWLock;
    EXPECT_EQ(2, heap->AddRef());
    EXPECT_EQ(1, heap->Release());
    EXPECT_EQ(0, heap->Release());  // deleted here; ASan would flag a leak otherwise
}

TEST(RWLock, RecursiveWriteAndDowngradeLimits) {
    RWLock lock;
    EXPECT_EQ(0u, lock.WriteLock());
    EXPECT_EQ(0u, lock.WriteLock(INFINITE));
    EXPECT_EQ(0u, lock.TryWriteLock());  // the owner nests even in try mode
    EXPECT_EQ(pthread_self(), lock.GetWriter());
    std::thread([&] {  // only the writer can unlock it
        EXPECT_EQ(0, lock.WriteUnlock());
        EXPECT_EQ(128u, lock.TryWriteLock());
    })
        .join();
    // Nested write locks cannot be downgraded.
    EXPECT_EQ(0, lock.DowngradeLock());
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(pthread_self(), lock.GetWriter());
    // At depth one the writer becomes a reader.
    EXPECT_EQ(1, lock.DowngradeLock());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
    EXPECT_EQ(1, lock.GetReaderCount());
    EXPECT_EQ(0, lock.WriteUnlock());    // no longer the writer
    EXPECT_EQ(0, lock.DowngradeLock());  // not the writer
    EXPECT_EQ(128u, lock.TryWriteLock());
    EXPECT_EQ(1, lock.ReadUnlock());
    EXPECT_EQ(0, lock.GetReaderCount());
    EXPECT_EQ(0u, lock.TryWriteLock());
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
}

TEST(RWLock, TryModesAndUncontendedUpgrade) {
    RWLock lock;
    EXPECT_EQ(0u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_EQ(0u, lock.ReadLock(0));  // admissible: no wait, so no time-out
    EXPECT_EQ(2, lock.GetReaderCount());
    EXPECT_EQ(128u, lock.TryWriteLock());
    EXPECT_EQ(128u, lock.WriteLockPrim(true, 5000, nullptr));
    lock.ReadUnlock();
    // The only reader upgrades at once.
    EXPECT_EQ(0u, lock.UpgradeLock(0));
    EXPECT_EQ(pthread_self(), lock.GetWriter());
    EXPECT_EQ(0, lock.GetReaderCount());
    // A writer refuses try-mode readers and, being preferred, any reader.
    EXPECT_EQ(128u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(0u, lock.ReadLockPrim(true, INFINITE, nullptr));
    lock.ReadUnlock();
}

TEST(RWLock, CopyTakesStateButFreshWaitState) {
    RWLock original(true, "orig", false);
    ASSERT_EQ(0u, original.ReadLock());
    RWLock copy(original);
    EXPECT_STREQ("orig", copy.GetLockName());
    EXPECT_EQ(1, copy.GetRefCount());
    EXPECT_EQ(1, copy.GetReaderCount());
    EXPECT_EQ(0, copy.GetWaitingReaders());
    EXPECT_EQ(0, copy.GetWaitingWriters());
    EXPECT_EQ(128u, copy.TryWriteLock());
    copy.ReadUnlock();
    EXPECT_EQ(0u, copy.TryWriteLock());
    // The two locks are independent from here on.
    EXPECT_EQ(1, original.GetReaderCount());
    EXPECT_EQ(1, copy.WriteUnlock());
    original.ReadUnlock();

    RWLock held;
    ASSERT_EQ(0u, held.WriteLock());
    RWLock heldCopy(held);
    EXPECT_EQ(pthread_self(), heldCopy.GetWriter());
    EXPECT_EQ(1, heldCopy.WriteUnlock());
    EXPECT_EQ(NULL_PTHREAD, heldCopy.GetWriter());
    EXPECT_EQ(pthread_self(), held.GetWriter());
    EXPECT_EQ(1, held.WriteUnlock());
}
