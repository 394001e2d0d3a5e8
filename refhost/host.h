// The reference host's main object: what a plug-in is given when it is opened.
#pragma once

#include "host/idorvet.h"
#include "refhost/frame.h"
#include "refhost/ledger.h"
#include "refhost/parammgr.h"

#include <filesystem>
#include <functional>

namespace refhost {

/// A message that the plug-in showed to the user.
struct Message {
    std::string title;
    std::string text;
    int kind = 0; ///< 3 is a warning
};

/// Implements IDorvet with parameter managers, frames and messages. Safe for use by any thread. It outlives the
/// plug-in that was opened with it.
class Host final : public IDorvet, private dv::IFrameFactory, private dv::IUiService {
public:
    /// The directories are handed to the plug-in as they are; nobody makes them. Without a user interface
    /// `uiService` is null.
    Host(const std::filesystem::path& configDirectory, const std::filesystem::path& logDirectory,
         bool userInterface = true);
    virtual ~Host() = default;
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    dv::IParamMgr* createParamMgr() override;
    dv::IFrameFactory* frameFactory() override { return this; }
    dv::IUiService* uiService() override { return hasUserInterface ? this : nullptr; }
    const char* logDirectory() override { return logDir.c_str(); }
    const char* configDirectory() override { return configDir.c_str(); }

    /// Called with each message, on the plug-in's thread. Set it before the plug-in is opened.
    void onMessage(std::function<void(const Message&)> handler) { messageHandler = std::move(handler); }
    std::vector<Message> messages() const;

    /// What the plug-in did wrong so far, in order.
    std::vector<std::string> complaints() const { return books->complaints(); }
    void clearComplaints() { books->clearComplaints(); }
    void complain(std::string text) { books->complain(std::move(text)); }
    /// Adds a complaint if the plug-in still holds frames, and one if it still holds managers. For after a close.
    void complainOfLeftovers();
    /// Frames that were made and not released, those in the host's own hands included.
    std::size_t liveFrames() const
    {
        return books->live(Ledger::Kind::PluginFrame) + books->live(Ledger::Kind::HostFrame);
    }
    std::size_t liveManagers() const { return books->live(Ledger::Kind::Manager); }

    /// Keeps an object until the host ends: what a plug-in may still call after it was closed.
    void keep(std::shared_ptr<void> object);

private:
    dv::IMpxFrame* createFrame(unsigned width, unsigned height, int dataType) override;
    void showMessage(const char* title, const char* text, int kind) override;

    const std::string configDir;
    const std::string logDir;
    const bool hasUserInterface;
    const std::shared_ptr<Ledger> books = std::make_shared<Ledger>();
    std::function<void(const Message&)> messageHandler;

    mutable std::mutex mutex; // guards the two below
    std::vector<Message> shown;
    std::vector<std::shared_ptr<void>> kept;
};

} // namespace refhost
