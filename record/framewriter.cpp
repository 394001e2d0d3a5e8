// The threads that encode and write frames.
#include "record/framewriter.h"

#include "record/error.h"
#include "record/text.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace record {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds FLUSH_INTERVAL{900}; // so that it comes once a second in spite of the write before

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::uint64_t missingBytesOf(const refhost::Frame& frame)
{
    const refhost::MetaData* block = frame.findMetaData("MissingBytes");
    const auto numbers = block != nullptr ? block->numbers() : std::vector<double>{};
    return numbers.empty() || !(numbers[0] > 0) ? 0 : static_cast<std::uint64_t>(numbers[0]);
}

/// A frame on its way through the pipe.
struct Piece {
    refhost::SeriesFrame frame;
    std::size_t bytes = 0;
    bool inHurry = false;
    bool taken = false; ///< by an encoding thread
    FrameRecord record;
    std::exception_ptr failure; ///< of its encoding
    bool encoded = false;
};

} // namespace

/// What the threads share. Frames lie in the order in which they came, and leave it at the front.
struct FrameWriter::Pipe {
    Pipe(std::shared_ptr<FrameSink> frameSink, PictureMaker pictureMaker, std::size_t queueBytes)
        : sink(std::move(frameSink)),
          maker(pictureMaker),
          limit(queueBytes)
    {
    }

    void encodeAll();
    void encode(Piece& piece) const;
    void writeAll();
    /// Runs work of the sink without the lock, and keeps what it throws. True when it throws nothing.
    bool run(std::unique_lock<std::mutex>& lock, const std::function<void()>& work);
    void count(const FrameRecord& record, bool inHurry);
    void fail(std::exception_ptr why);

    const std::shared_ptr<FrameSink> sink; // `encode` from any thread, the rest from the one that writes
    const PictureMaker maker;
    const std::size_t limit;

    mutable std::mutex mutex; // guards everything below; a Piece that is taken and not encoded belongs to its thread
    std::condition_variable changed;
    std::deque<std::shared_ptr<Piece>> queue;
    std::size_t queuedBytes = 0;
    bool closing = false;
    bool broken = false;
    bool unflushed = false;
    bool over = false; ///< the writing thread has ended
    std::optional<SeriesSummary> summary;
    std::exception_ptr failure;
    std::optional<Clock::time_point> busySince;
    WriterCounts counts;
    unsigned zeroInARow = 0;
};

FrameWriter::FrameWriter(std::shared_ptr<FrameSink> sink, PictureMaker maker, std::size_t queueBytes, unsigned count)
    : pipe(std::make_shared<Pipe>(std::move(sink), maker, queueBytes))
{
    const unsigned encoders = count > 0 ? count : std::max(1u, std::thread::hardware_concurrency());
    threads.emplace_back([shared = pipe] { shared->writeAll(); });
    for (unsigned i = 0; i < encoders; ++i)
        threads.emplace_back([shared = pipe] { shared->encodeAll(); });
}

FrameWriter::~FrameWriter()
{
    join();
}

void FrameWriter::push(refhost::SeriesFrame frame)
{
    auto piece = std::make_shared<Piece>();
    piece->bytes = frame.frame->bytes().size();
    piece->frame = std::move(frame);
    std::unique_lock lock(pipe->mutex);
    const auto hasRoom = [&] {
        return pipe->broken || pipe->queue.size() < 2 || pipe->queuedBytes + piece->bytes <= pipe->limit;
    };
    if (!hasRoom()) {
        const auto begin = Clock::now();
        pipe->changed.wait(lock, hasRoom);
        pipe->counts.held += secondsSince(begin);
    }
    if (pipe->broken)
        return;
    pipe->queuedBytes += piece->bytes;
    piece->inHurry = pipe->queue.size() > 2 && pipe->queuedBytes > pipe->limit / 2;
    pipe->queue.push_back(std::move(piece));
    pipe->changed.notify_all();
}

void FrameWriter::Pipe::encodeAll()
{
    std::unique_lock lock(mutex);
    while (true) {
        std::shared_ptr<Piece> next;
        changed.wait(lock, [&] {
            const auto found =
                std::find_if(queue.begin(), queue.end(), [](const auto& piece) { return !piece->taken; });
            next = found != queue.end() ? *found : nullptr;
            return next != nullptr || closing || broken;
        });
        if (next == nullptr)
            return;
        next->taken = true;
        lock.unlock();
        encode(*next);
        lock.lock();
        next->encoded = true;
        changed.notify_all();
    }
}

void FrameWriter::Pipe::encode(Piece& piece) const
{
    try {
        const refhost::SeriesFrame& from = piece.frame;
        piece.record.index = from.index;
        piece.record.arrival = from.arrival;
        piece.record.exposure = from.exposure;
        piece.record.metaData = from.frame->metaData();
        piece.record.missingBytes = missingBytesOf(*from.frame);
        sink->encode(maker, *from.frame, piece.record, piece.inHurry);
        if (piece.record.pictures.empty() && piece.record.chunks.empty())
            throw FrameError("the device gave a frame of another size or type than its chips have");
        piece.frame.frame.reset();
    } catch (...) {
        piece.failure = std::current_exception();
    }
}

void FrameWriter::Pipe::writeAll()
{
    std::unique_lock lock(mutex);
    auto nextFlush = Clock::now() + FLUSH_INTERVAL;
    const auto hasWork = [&] { return broken || (queue.empty() ? closing : queue.front()->encoded); };
    while (!broken) {
        if (unflushed)
            changed.wait_until(lock, nextFlush, hasWork);
        else
            changed.wait(lock, hasWork);
        if (!broken && !queue.empty() && queue.front()->encoded) {
            const std::shared_ptr<Piece> piece = queue.front();
            if (piece->failure != nullptr) {
                fail(piece->failure);
            } else if (run(lock, [&] { sink->write(piece->record); }) && !broken) {
                queue.pop_front();
                queuedBytes -= piece->bytes;
                count(piece->record, piece->inHurry);
                unflushed = true;
            }
            changed.notify_all();
        }
        if (!broken && unflushed && Clock::now() >= nextFlush) {
            run(lock, [&] { sink->flush(); });
            unflushed = false;
            nextFlush = Clock::now() + FLUSH_INTERVAL;
        }
        if (closing && queue.empty())
            break;
    }
    changed.wait(lock, [&] { return closing; });
    if (summary)
        run(lock, [&] { sink->finish(*summary); });
    over = true;
    changed.notify_all();
}

bool FrameWriter::Pipe::run(std::unique_lock<std::mutex>& lock, const std::function<void()>& work)
{
    std::exception_ptr thrown;
    busySince = Clock::now();
    lock.unlock();
    try {
        work();
    } catch (...) {
        thrown = std::current_exception();
    }
    lock.lock();
    busySince.reset();
    if (thrown != nullptr)
        fail(thrown);
    return thrown == nullptr;
}

void FrameWriter::Pipe::count(const FrameRecord& record, bool inHurry)
{
    ++counts.written;
    counts.incomplete += record.missingBytes > 0 ? 1 : 0;
    counts.inHurry += inHurry ? 1 : 0;
    const bool isZero = maker.isAllZero(record.tally);
    counts.zero += isZero ? 1 : 0;
    zeroInARow = isZero ? zeroInARow + 1 : 0;
    if (counts.zero < counts.written)
        counts.longestZero = std::max(counts.longestZero, zeroInARow);
    counts.saturated += record.tally.saturated;
    counts.mostSaturated = std::max(counts.mostSaturated, maker.saturatedShare(record.tally));
}

void FrameWriter::Pipe::fail(std::exception_ptr why)
{
    if (failure == nullptr)
        failure = std::move(why);
    broken = true;
    queue.clear();
    queuedBytes = 0;
    changed.notify_all();
}

void FrameWriter::join()
{
    {
        const std::lock_guard lock(pipe->mutex);
        pipe->closing = true;
    }
    pipe->changed.notify_all();
    for (std::thread& thread : threads)
        if (thread.joinable())
            thread.join();
}

void FrameWriter::finish(const SeriesSummary& summary, std::chrono::milliseconds patience)
{
    {
        std::unique_lock lock(pipe->mutex);
        pipe->summary = summary;
        pipe->closing = true;
        pipe->changed.notify_all();
        const double limit = std::chrono::duration<double>(patience).count();
        const auto stuck = [&] { return pipe->busySince && secondsSince(*pipe->busySince) >= limit; };
        while (!pipe->over && !stuck())
            pipe->changed.wait_for(lock, std::chrono::milliseconds(50));
        if (!pipe->over) {
            lock.unlock();
            giveUp();
        }
    }
    join();
    if (pipe->failure != nullptr)
        std::rethrow_exception(pipe->failure);
}

void FrameWriter::giveUp()
{
    {
        const std::lock_guard lock(pipe->mutex);
        pipe->summary.reset();
        const std::string seconds = fixed(pipe->busySince ? secondsSince(*pipe->busySince) : 0, 0);
        pipe->fail(std::make_exception_ptr(
            OutputError("cannot write " + pipe->sink->place() + ": the disk has taken nothing for " + seconds + " s")));
    }
    if (threads.front().joinable())
        threads.front().detach();
}

bool FrameWriter::failed() const
{
    const std::lock_guard lock(pipe->mutex);
    return pipe->broken;
}

WriterCounts FrameWriter::counts() const
{
    const std::lock_guard lock(pipe->mutex);
    return pipe->counts;
}

double FrameWriter::blocked() const
{
    const std::lock_guard lock(pipe->mutex);
    return pipe->busySince ? secondsSince(*pipe->busySince) : 0;
}

} // namespace record
