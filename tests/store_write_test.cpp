// Host writes into both kinds of store, driven as a host drives them: the
// writable store fetches only the partly covered sectors it lacks; the
// read-only store fetches every missing sector a write touches first and
// waits for them, through the host's queue or at once.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <tuple>

#include "tests/store_test_support.h"

namespace storetest {
namespace {

using WritableTest = StoreTest;
using ReadonlyWriteTest = StoreTest;

std::vector<char> Contents(WritableCache& store) {
    return Read(store, nullptr, 0, 0, store.GetFileSize()).bytes;
}

TEST_F(WritableTest, RequestsFetchOnlyTheMissingSectorsTheyNeedAndConvert) {
    MakeRemote(10 * kSector + 123);
    auto store = Writable("share:f.bin", Size());
    EXPECT_EQ(Read(*store, nullptr, 0, 100, 1000).transferred, 0);  // nothing held yet
    EXPECT_TRUE(ReadsRemote(*store, kSector + 10, kSector, fetch.get()));
    EXPECT_EQ(fetch->Take(), (Calls{{kSector, 2 * kSector}}));

    // Writes into `target` and into the image of what it must hold.
    auto image = remote;
    auto put = [&](ICacheFile& target, IFetch* source, long long offset, std::vector<char> bytes) {
        Overlay(image, offset, bytes);
        return Write(target, source, 0, offset, bytes);
    };
    // From inside sector 2 to inside sector 5: only the partly covered
    // missing tail is fetched (the head is cached).
    EXPECT_EQ(put(*store, fetch.get(), 2 * kSector + 1000, Pattern(3 * kSector + 500, 'w')), AE_OK);
    EXPECT_EQ(fetch->Take(), (Calls{{5 * kSector, kSector}}));
    // Exactly sector 7 fetches nothing, not even its missing neighbour; a
    // blind write leaves the rest of sector 9 unfetched, as zeros.
    EXPECT_EQ(put(*store, fetch.get(), 7 * kSector, Pattern(kSector, 'a')), AE_OK);
    Overlay(image, 9 * kSector, std::vector<char>(kSector, '\0'));
    EXPECT_EQ(put(*store, nullptr, 9 * kSector + 5, Pattern(10, 'b')), AE_OK);
    EXPECT_TRUE(fetch->Take().empty());
    EXPECT_EQ(Read(*store, fetch.get(), 0, 0, 11 * kSector).bytes, image);
    EXPECT_EQ(fetch->Take(), (Calls{{0, kSector},
                                    {6 * kSector, kSector},
                                    {8 * kSector, kSector},
                                    {10 * kSector, kSector}}));

    // Converted, the store serves those bytes without fetching; a write
    // needs no fetcher. A sector appended after the short last slot starts on
    // the next boundary, so growing the short one later never spills into it.
    std::unique_ptr<ReadonlyCache> readonly(
        static_cast<ReadonlyCache*>(store->RebuildToReadonlyCache(fetch.get(), nullptr)));
    EXPECT_TRUE(log.HasText("[f.bin] Read only cache from writable cache created"));
    // The stream has moved: the writable store refuses everything.
    EXPECT_THROW(ReadonlyCache(store.get(), Config()), AERROR);
    EXPECT_EQ(Read(*store, fetch.get(), 0, 0, 10).error, AE_INVALID_HANDLE);
    EXPECT_EQ(Write(*store, fetch.get(), 0, 0, Pattern(10, 'e')), AE_INVALID_HANDLE);
    EXPECT_EQ(store->FetchWrite(0, remote.data(), 10, nullptr), AE_INVALID_HANDLE);
    EXPECT_EQ(store->Truncate(0), AE_INVALID_HANDLE);
    EXPECT_EQ(store->Close(), AE_INVALID_HANDLE);
    EXPECT_EQ(store->GetFileSize(), 0);
    store.reset();  // removes the path; the read-only store keeps the stream
    EXPECT_EQ(put(*readonly, nullptr, 11 * kSector + 5, Pattern(10, 'c')), AE_OK);
    EXPECT_EQ(put(*readonly, nullptr, 10 * kSector + 1000, Pattern(kSector - 1000, 'd')), AE_OK);
    EXPECT_EQ(readonly->GetFileSize(), std::ssize(image));
    EXPECT_EQ(Read(*readonly, fetch.get(), std::ssize(image), 0, std::ssize(image)).bytes, image);
    EXPECT_TRUE(fetch->Take().empty());

    // A write of the whole file as the request gives its size fetches
    // nothing; with another size the partial tail is fetched first.
    const auto whole = Pattern(200000, 'y');
    auto rewritten = Writable("whole.bin", 200000);
    EXPECT_EQ(Write(*rewritten, fetch.get(), 200000, 0, whole), AE_OK);
    EXPECT_EQ(rewritten->FillEmptySectors(fetch.get()), AE_OK);
    EXPECT_TRUE(fetch->Take().empty());
    EXPECT_EQ(Contents(*rewritten), whole);
    auto other = Writable("other.bin", 200000);
    EXPECT_EQ(Write(*other, fetch.get(), 0, 0, whole), AE_OK);
    EXPECT_EQ(fetch->Take(), (Calls{{3 * kSector, kSector}}));
}

TEST_F(WritableTest, TruncateAndFillsWorkOnRunsOfMissingSectors) {
    MakeRemote(10 * kSector);
    auto shrunk = Writable("shrunk.bin", Size());
    ASSERT_EQ(shrunk->Truncate(3 * kSector + 5), AE_OK);
    EXPECT_EQ(shrunk->FillEmptySectors(fetch.get()), AE_OK);
    EXPECT_EQ(fetch->Take(), (Calls{{0, 4 * kSector}}));
    EXPECT_EQ(Contents(*shrunk), Slice(remote, 0, 4 * kSector));

    // Growing lists the new sectors and the old partial last one again; a
    // failed run stays missing for the next fill.
    auto grown = Writable("grown.bin", 0);
    EXPECT_EQ(Write(*grown, nullptr, 0, 0, Pattern(100000, 'g')), AE_OK);
    ASSERT_EQ(grown->Truncate(200000), AE_OK);
    fetch->failTo = kSector + 1;
    EXPECT_EQ(grown->FillEmptySectors(fetch.get()), AE_OK);
    EXPECT_TRUE(log.HasText("[grown.bin] Read-ahead for writable cache failed : 65536, 196608"));
    fetch->failTo = 0;
    EXPECT_EQ(grown->FillEmptySectors(fetch.get()), AE_OK);
    EXPECT_EQ(fetch->Take(), (Calls{{kSector, 3 * kSector}, {kSector, 3 * kSector}}));
    EXPECT_EQ(grown->Truncate(-1), AE_WRITE_FAILED);
    EXPECT_EQ(grown->Truncate(cache::kOffsetLimit + 1), AE_WRITE_FAILED);
    EXPECT_TRUE(log.HasText("[grown.bin] Truncate failed : Invalid argument"));
}

// A read that needs a sector whose fetch failed answers 8 instead of passing
// zeros or a short count off as the remote's bytes. Without a fetcher the
// store serves what its file holds; where the remote simply ends, the read
// stops there as before.
TEST_F(WritableTest, ReadsThatNeedAFailedFillAnswerEight) {
    MakeRemote(4 * kSector + 100);
    auto store = Writable("f.bin", Size());
    fetch->failFrom = kSector;
    fetch->failTo = 2 * kSector;
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 100, 2 * kSector).error, AE_READ_NOT_SERVED);
    EXPECT_TRUE(log.HasText("[f.bin] Read failed : Sector 0 could not be fetched"));
    EXPECT_TRUE(ReadsRemote(*store, 3 * kSector, kSector + 100, fetch.get()));
    const auto unfetched = Read(*store, nullptr, Size(), 0, 2 * kSector);
    EXPECT_EQ(unfetched.error, AE_OK);
    EXPECT_EQ(unfetched.bytes, std::vector<char>(2 * kSector, '\0'));
    fetch->failTo = 0;
    EXPECT_TRUE(ReadsRemote(*store, 100, 2 * kSector, fetch.get()));

    auto longer = Writable("longer.bin", Size() + kSector);
    const auto tail = Read(*longer, fetch.get(), Size() + kSector, Size() - 100, 1000);
    EXPECT_EQ(tail.error, AE_OK);
    EXPECT_EQ(tail.bytes, Slice(remote, Size() - 100, 100));
}

// A converted copy maps its sectors at their own offsets, and holes among
// them read as zeros without a fetch. A huge sparse copy (2^39 bytes with two
// sectors written) maps only the sectors it holds.
TEST_F(WritableTest, ConversionCostsWhatTheCopyHolds) {
    MakeRemote(4 * kSector);
    auto convert = [](WritableCache& store) {
        return std::unique_ptr<ReadonlyCache>(
            static_cast<ReadonlyCache*>(store.RebuildToReadonlyCache(nullptr, nullptr)));
    };
    auto small = Writable("small.bin", Size());
    std::vector<char> image;
    Overlay(image, 0, Pattern(100, 'a'));
    Overlay(image, 2 * kSector + 5, Pattern(100, 'b'));
    ASSERT_EQ(Write(*small, nullptr, 0, 0, Pattern(100, 'a')), AE_OK);
    ASSERT_EQ(Write(*small, nullptr, 0, 2 * kSector + 5, Pattern(100, 'b')), AE_OK);
    auto dense = convert(*small);
    EXPECT_EQ(ReadonlyCachePeer::Sectors(*dense).size(), 3u);
    EXPECT_EQ(Read(*dense, fetch.get(), std::ssize(image), 0, std::ssize(image)).bytes, image);
    EXPECT_TRUE(fetch->Take().empty());

    constexpr long long kHuge = 1LL << 39;
    auto huge = Writable("huge.bin", kHuge);
    ASSERT_EQ(Write(*huge, nullptr, 0, 0, Pattern(100, 'c')), AE_OK);
    ASSERT_EQ(Write(*huge, nullptr, 0, kHuge - 100, Pattern(100, 'd')), AE_OK);
    auto sparse = convert(*huge);
    EXPECT_EQ(ReadonlyCachePeer::Sectors(*sparse).size(), 2u);
    EXPECT_EQ(Read(*sparse, nullptr, kHuge, 0, 100).bytes, Pattern(100, 'c'));
    EXPECT_EQ(Read(*sparse, nullptr, kHuge, kHuge - 100, 100).bytes, Pattern(100, 'd'));
    EXPECT_EQ(Read(*sparse, nullptr, kHuge, kSector, 100).transferred, 0);  // a hole: absent
}

// The writer's fetch of its partial tail holds the store's lock; a reader of
// the same sectors comes after it and must not fetch over the written ones.
TEST_F(WritableTest, FillAfterAWriteLeavesTheWrittenSectorsAlone) {
    MakeRemote(4 * kSector);
    auto store = Writable("f.bin", Size());
    fetch->SetGate(false);
    const auto bytes = Pattern(kSector + 100, 'q');
    std::thread writer(
        [&] { EXPECT_EQ(Write(*store, fetch.get(), 0, 2 * kSector, bytes), AE_OK); });
    EXPECT_TRUE(fetch->WaitForHeld(1));
    std::thread reader([&] { Read(*store, fetch.get(), 0, kSector, 3 * kSector); });
    fetch->SetGate(true);
    writer.join();
    reader.join();
    EXPECT_EQ(fetch->Take(), (Calls{{3 * kSector, kSector}, {kSector, kSector}}));
    EXPECT_EQ(Read(*store, nullptr, 0, 2 * kSector, std::ssize(bytes)).bytes, bytes);
}

TEST_F(WritableTest, ConcurrentDisjointWritesAndReadsLandWhereWritten) {
    constexpr int kThreads = 4;
    constexpr long long kSpan = 3 * kSector + 777;  // neighbours share sectors
    constexpr long long kPiece = 10007, kPieces = (kSpan + kPiece - 1) / kPiece;
    MakeRemote(kThreads * kSpan);
    auto store = Writable("f.bin", Size());
    auto image = remote;
    for (int t = 0; t < kThreads; ++t) Overlay(image, t * kSpan, Pattern(kSpan, 'A' + t));
    std::atomic<bool> done{false};
    std::thread sizer([&] {
        while (!done) EXPECT_LE(store->GetFileSize(), Size());
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        // Unaligned pieces in a scrambled order, with and without fetching,
        // each read back at once.
        writers.emplace_back([&, t] {
            for (long long k = 0; k < kPieces; ++k) {
                const long long start = t * kSpan + k * 7 % kPieces * kPiece;
                const std::vector<char> piece(
                    image.begin() + start,
                    image.begin() + std::min(start + kPiece, (t + 1) * kSpan));
                IFetch* source = k % 2 == 0 ? fetch.get() : nullptr;
                EXPECT_EQ(Write(*store, source, Size(), start, piece), AE_OK);
                EXPECT_EQ(Read(*store, source, Size(), start, std::ssize(piece)).bytes, piece);
            }
        });
    }
    for (auto& writer : writers) writer.join();
    done = true;
    sizer.join();
    ASSERT_EQ(store->FillEmptySectors(fetch.get()), AE_OK);
    EXPECT_EQ(Contents(*store), image);
}

TEST_F(WritableTest, BadRequestsToEitherStoreAreRefused) {
    MakeRemote(2 * kSector);
    ASSERT_EQ(mkdir(dir.Sub("gone").c_str(), 0700), 0);
    const auto gone = cache::CacheDirectory::Open(dir.Sub("gone/"));
    ASSERT_EQ(rmdir(dir.Sub("gone").c_str()), 0);
    EXPECT_THROW(WritableCache(gone, "f.bin", 10, nullptr, Config()), AERROR);
    auto writable = Writable("f.bin", Size());
    auto readonly = ReadOnly("r.bin");
    char byte = 'z';
    for (ICacheFile* store : std::initializer_list<ICacheFile*>{writable.get(), readonly.get()}) {
        for (auto [offset, length, buffer] : {std::tuple{-1LL, 1LL, &byte},
                                              {0LL, -5LL, &byte},
                                              {0LL, 1LL, nullptr},
                                              {LLONG_MAX - 10, 100LL, &byte}}) {
            _WRITEDATA write{buffer, offset, length, 0, nullptr, 0, fetch.get(), 0};
            EXPECT_EQ(store->Write(&write), AE_WRITE_FAILED) << offset << ", " << length;
            _READDATA read{buffer, offset, length, 0, nullptr, 0, fetch.get(), 0, RD_NONE};
            EXPECT_EQ(store->Read(&read), AE_READ_FAILED) << offset << ", " << length;
        }
    }
    for (IFetchCallback* sink :
         std::initializer_list<IFetchCallback*>{writable.get(), readonly.get()}) {
        EXPECT_EQ(sink->FetchWrite(0, remote.data(), -1, nullptr), AE_WRITE_FAILED);
        EXPECT_EQ(sink->FetchWrite(0, nullptr, 10, nullptr), AE_WRITE_FAILED);
        EXPECT_EQ(sink->FetchWrite(-1, remote.data(), 10, nullptr), AE_WRITE_FAILED);
    }
    EXPECT_EQ(readonly->Reserve(-kSector, kSector), AE_NOTHING_RESERVED);
    EXPECT_EQ(readonly->Reserve(0, LLONG_MAX), AE_NOTHING_RESERVED);
    EXPECT_TRUE(ReadonlyCachePeer::Sectors(*readonly).empty());
    EXPECT_EQ(writable->FillEmptySectors(fetch.get()), AE_OK);  // still all missing
    EXPECT_EQ(fetch->Take(), (Calls{{0, 2 * kSector}}));
}

// A host write lands in its own sector's slot wherever that slot lies in the
// cache file, and a read returns what the write put there: never another
// slot's bytes, and never the remote's bytes over the written ones. No
// sector ever claims more than one slot.
TEST_F(ReadonlyWriteTest, WritesLandInTheirOwnSlotAndStayThere) {
    MakeRemote(40 * kSector);
    // Where slot and sector offset coincide the sector ends where the write
    // ends: 10 bytes at 5 make sector 0 hold 15.
    auto fresh = ReadOnly("fresh.bin");
    ASSERT_EQ(Write(*fresh, nullptr, Size(), 5, Pattern(10, 'a')), AE_OK);
    EXPECT_EQ(ReadonlyCachePeer::Sectors(*fresh).at(0).length, 15);

    // Slots in arrival order: sector 65536 in slot 0, 0 in 65536, 196608 in
    // 131072.
    auto store = ReadOnly();
    ASSERT_EQ(Deliver(*store, kSector, kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 0, kSector), AE_OK);
    ASSERT_EQ(Deliver(*store, 3 * kSector, kSector), AE_OK);
    auto image = remote;
    auto put = [&](long long offset, const std::vector<char>& bytes) {
        Overlay(image, offset, bytes);
        return Write(*store, nullptr, Size(), offset, bytes);
    };
    ASSERT_EQ(put(0, Pattern(100, 'h')), AE_OK);
    EXPECT_TRUE(ReadonlyCachePeer::EveryLengthWithinOneSlot(*store));
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, kSector + 100).bytes,
              Slice(image, 0, kSector + 100));

    // A sector not cached gets a slot of its own; the rest of it comes from
    // the remote later, around the written bytes.
    ASSERT_EQ(put(10 * kSector, Pattern(100, 'f')), AE_OK);
    EXPECT_EQ(Read(*store, nullptr, Size(), 10 * kSector, 100).bytes, Pattern(100, 'f'));
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 10 * kSector, kSector).bytes,
              Slice(image, 10 * kSector, kSector));

    // A reused slot still holds its last sector's bytes: a write in the
    // middle of a sector not cached shows zeros before it, not those.
    ReadonlyCachePeer::Evict(*store, 3 * kSector);
    const auto middle = Pattern(10, 'm');
    ASSERT_EQ(Write(*store, nullptr, Size(), 30 * kSector + 1000, middle), AE_OK);
    std::vector<char> expected(1000, '\0');
    expected.insert(expected.end(), middle.begin(), middle.end());
    EXPECT_EQ(Read(*store, nullptr, Size(), 30 * kSector, 1010).bytes, expected);

    // Fetched data that arrives for a written sector, as a read-ahead that
    // starts at the end of a cached run does, leaves the written bytes alone.
    ASSERT_EQ(Deliver(*store, 0, 2 * kSector), AE_OK);
    EXPECT_EQ(Read(*store, fetch.get(), Size(), 0, 200).bytes, Slice(image, 0, 200));
    EXPECT_TRUE(ReadonlyCachePeer::EveryLengthWithinOneSlot(*store));
}

TEST_F(ReadonlyWriteTest, WriteFetchesMissingSectorsFirstOrGivesUp) {
    MakeRemote(8 * kSector);
    for (bool queued : {false, true}) {
        SCOPED_TRACE(queued ? "through the queue" : "inside the write");
        if (queued) UseQueue();
        auto store = ReadOnly(queued ? "queued.bin" : "inline.bin");
        ASSERT_EQ(Deliver(*store, 0, 3 * kSector), AE_OK);
        // Mid-sector across three sectors, the last two missing: they come
        // in one run. A write into a present sector fetches nothing.
        auto image = remote;
        const auto wide = Pattern(2 * kSector, 'w');
        EXPECT_EQ(Write(*store, fetch.get(), Size(), 2 * kSector + 1000, wide), AE_OK);
        EXPECT_EQ(fetch->Take(), (Calls{{3 * kSector, 2 * kSector}}));
        Overlay(image, 2 * kSector + 1000, wide);
        EXPECT_EQ(Write(*store, fetch.get(), Size(), 70000, Pattern(100, 's')), AE_OK);
        Overlay(image, 70000, Pattern(100, 's'));
        EXPECT_TRUE(fetch->Take().empty());
        EXPECT_EQ(Read(*store, nullptr, Size(), 0, 6 * kSector).bytes,
                  Slice(image, 0, 5 * kSector));
    }

    // The remote stops answering: a write gives up at its time-out, or when
    // the host has closed its handle, leaving the fetch in flight; a failing
    // fetch fails it at once. Only the gate releases the held fetch.
    auto store = ReadOnly();
    fetch->SetGate(false);
    auto started = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::steady_clock::now() - started; };
    EXPECT_EQ(Write(*store, fetch.get(), Size(), 10, Pattern(10, 't'), 100), AE_WRITE_FAILED);
    EXPECT_GE(elapsed(), std::chrono::milliseconds(100));
    EXPECT_LT(elapsed(), std::chrono::seconds(5));  // not the default 10 s
    EXPECT_EQ(log.WithFormat("[%s] Write timed-out : %p, %lld, %d").size(), 1u);

    // Sector 0 stays reserved: the next writer waits for the same fetch.
    auto handle = testhost::OpenHandle();
    testhost::MarkClosed(handle);
    EXPECT_EQ(Write(*store, fetch.get(), Size(), 20, Pattern(10, 'u'), 20000, handle),
              AE_WRITE_FAILED);
    EXPECT_EQ(log.WithFormat("[%s] Write handle closed : %p, %lld, %d").size(), 1u);
    fetch->SetGate(true);
    queue->WaitIdle();
    EXPECT_EQ(fetch->Take(), (Calls{{0, kSector}}));

    fetch->failFrom = 2 * kSector;
    fetch->failTo = 3 * kSector;
    started = std::chrono::steady_clock::now();
    EXPECT_EQ(Write(*store, fetch.get(), Size(), 2 * kSector, Pattern(kSector, 'x')),
              AE_WRITE_FAILED);
    EXPECT_LT(elapsed(), std::chrono::seconds(5));
    EXPECT_EQ(log.WithFormat("[%s] Write failed : %p, %lld, %d").size(), 1u);
    EXPECT_EQ(fetch->Take(), (Calls{{2 * kSector, kSector}}));
}

}  // namespace
}  // namespace storetest
