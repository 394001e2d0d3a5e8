// The reference host's main object.
#include "refhost/host.h"

#include <new>

namespace refhost {
namespace {

// A composite of a hundred chips needs 6.5 million pixels; beyond this the request is a mistake.
constexpr std::size_t LARGEST_FRAME = std::size_t{1} << 28;

} // namespace

Host::Host(const std::filesystem::path& configDirectory, const std::filesystem::path& logDirectory, bool userInterface)
    : configDir(configDirectory.string()),
      logDir(logDirectory.string()),
      hasUserInterface(userInterface)
{
}

dv::IParamMgr* Host::createParamMgr()
{
    return new ParamMgr(books);
}

dv::IMpxFrame* Host::createFrame(unsigned width, unsigned height, int dataType)
{
    const auto type = dataTypeOf(dataType);
    const std::size_t pixels = std::size_t{width} * height;
    const std::string what =
        std::to_string(width) + "x" + std::to_string(height) + " of type " + std::to_string(dataType);
    if (!type || *type == DataType::Text || pixels > LARGEST_FRAME) {
        complain("createFrame of " + what);
        return nullptr;
    }
    try {
        return new Frame(width, height, *type, books);
    } catch (const std::bad_alloc&) {
        complain("no memory for a frame of " + what);
        return nullptr;
    }
}

void Host::showMessage(const char* title, const char* text, int kind)
{
    if (title == nullptr || text == nullptr)
        complain("showMessage with a null text");
    const Message message{title != nullptr ? title : "", text != nullptr ? text : "", kind};
    {
        const std::lock_guard lock(mutex);
        shown.push_back(message);
    }
    if (messageHandler)
        messageHandler(message);
}

std::vector<Message> Host::messages() const
{
    const std::lock_guard lock(mutex);
    return shown;
}

void Host::complainOfLeftovers()
{
    if (const std::size_t frames = books->live(Ledger::Kind::PluginFrame); frames != 0)
        complain(std::to_string(frames) + " frame(s) never released");
    if (const std::size_t managers = liveManagers(); managers != 0)
        complain(std::to_string(managers) + " parameter manager(s) never released");
}

void Host::keep(std::shared_ptr<void> object)
{
    const std::lock_guard lock(mutex);
    kept.push_back(std::move(object));
}

} // namespace refhost
