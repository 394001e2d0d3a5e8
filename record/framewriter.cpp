// The thread that writes frames.
#include "record/framewriter.h"

#include "record/error.h"

#include <chrono>

namespace record {
namespace {

std::size_t bytesOf(const refhost::SeriesFrame& frame)
{
    return frame.frame->bytes().size();
}

} // namespace

FrameWriter::FrameWriter(FrameSink& frameSink, PictureMaker pictureMaker, std::size_t queueBytes)
    : sink(frameSink),
      maker(pictureMaker),
      limit(queueBytes),
      thread([this] { run(); })
{
}

FrameWriter::~FrameWriter()
{
    join();
}

void FrameWriter::push(refhost::SeriesFrame frame)
{
    const std::size_t bytes = bytesOf(frame);
    std::unique_lock lock(mutex);
    const auto hasRoom = [&] { return broken || queue.size() < 2 || queuedBytes + bytes <= limit; };
    if (!hasRoom()) {
        const auto begin = std::chrono::steady_clock::now();
        changed.wait(lock, hasRoom);
        heldSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
    if (broken)
        return;
    queuedBytes += bytes;
    queue.push_back(std::move(frame));
    changed.notify_all();
}

void FrameWriter::run()
{
    std::unique_lock lock(mutex);
    while (true) {
        changed.wait(lock, [&] { return closing || !queue.empty(); });
        if (queue.empty())
            return;
        const refhost::SeriesFrame frame = std::move(queue.front());
        queue.pop_front();
        queuedBytes -= bytesOf(frame);
        changed.notify_all();
        lock.unlock();
        try {
            writeOne(frame);
            ++writtenCount;
            lock.lock();
        } catch (...) {
            lock.lock();
            failure = std::current_exception();
            broken = true;
            queue.clear();
            changed.notify_all();
            return;
        }
    }
}

void FrameWriter::writeOne(const refhost::SeriesFrame& frame)
{
    FrameRecord record{frame.index, frame.arrival, frame.exposure, maker.make(*frame.frame), frame.frame->metaData()};
    if (record.pictures.empty())
        throw FrameError("the device gave a frame of another size or type than its chips have");
    sink.write(record);
}

void FrameWriter::join()
{
    {
        const std::lock_guard lock(mutex);
        closing = true;
    }
    changed.notify_all();
    if (thread.joinable())
        thread.join();
}

void FrameWriter::finish()
{
    join();
    if (failure != nullptr)
        std::rethrow_exception(failure);
}

double FrameWriter::held() const
{
    const std::lock_guard lock(mutex);
    return heldSeconds;
}

} // namespace record
