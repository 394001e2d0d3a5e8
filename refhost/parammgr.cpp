// The host's parameter store.
#include "refhost/parammgr.h"

namespace refhost {
namespace {

constexpr std::size_t LARGEST_CONTENT = std::size_t{64} << 20;

std::string textOrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

ParamTraits single(const char* name, const char* description, DataType type, dv::ParamFunc callback, long user,
                   unsigned flags)
{
    return {textOrEmpty(name), textOrEmpty(description), type, 1, callback, user, flags};
}

} // namespace

ParamMgr::ParamMgr(const std::shared_ptr<Ledger>& books) : ledger(books)
{
    books->born(Ledger::Kind::Manager);
}

int ParamMgr::addParam(const char* name, const char* description, int dataType, std::size_t count,
                       const void* defaultValue, dv::ParamFunc callback, long user, unsigned flags)
{
    const auto type = dataTypeOf(dataType);
    if (!type) {
        complain("addParam of " + textOrEmpty(name) + " with the unknown type " + std::to_string(dataType));
        return -1;
    }
    if (count > LARGEST_CONTENT / sizeOf(*type)) {
        complain("addParam of " + textOrEmpty(name) + " with " + std::to_string(count) + " items");
        return -1;
    }
    ParamTraits traits = single(name, description, *type, callback, user, flags);
    traits.count = count;
    return add(std::move(traits), defaultValue);
}

int ParamMgr::addByte(const char* name, const char* description, unsigned char defaultValue, dv::ParamFunc callback,
                      long user, unsigned flags)
{
    return add(single(name, description, DataType::Byte, callback, user, flags), &defaultValue);
}

int ParamMgr::addBool(const char* name, const char* description, bool defaultValue, dv::ParamFunc callback, long user,
                      unsigned flags)
{
    const std::uint32_t value = defaultValue ? 1 : 0;
    return add(single(name, description, DataType::Bool, callback, user, flags), &value);
}

int ParamMgr::addInt32(const char* name, const char* description, int defaultValue, dv::ParamFunc callback, long user,
                       unsigned flags)
{
    return add(single(name, description, DataType::Int32, callback, user, flags), &defaultValue);
}

int ParamMgr::addDouble(const char* name, const char* description, double defaultValue, dv::ParamFunc callback,
                        long user, unsigned flags)
{
    return add(single(name, description, DataType::Double, callback, user, flags), &defaultValue);
}

int ParamMgr::addString(const char* name, const char* description, const char* defaultText, dv::ParamFunc callback,
                        long user, unsigned flags)
{
    return add(single(name, description, DataType::Text, callback, user, flags), defaultText);
}

int ParamMgr::add(ParamTraits traits, const void* initial)
{
    if (!usable("an add operation"))
        return -1;
    if (traits.name.empty()) {
        complain("a parameter without a name was added");
        return -1;
    }
    auto param = std::make_unique<Param>(std::move(traits), initial, this, ledger);
    const std::lock_guard lock(mutex);
    if (!byName.emplace(param->name(), param.get()).second) {
        complain(std::string("parameter ") + param->name() + " was added twice");
        return -1;
    }
    params.push_back(std::move(param));
    return 0;
}

dv::IParam* ParamMgr::get(const char* name)
{
    if (!usable("get"))
        return nullptr;
    Param* param = name != nullptr ? find(name) : nullptr;
    if (param == nullptr)
        complain("get of the unknown parameter " + (name != nullptr ? std::string(name) : "(null)"));
    return param;
}

bool ParamMgr::exists(const char* name)
{
    if (!usable("exists"))
        return false;
    if (name == nullptr)
        complain("exists with a null name");
    return name != nullptr && find(name) != nullptr;
}

std::size_t ParamMgr::count()
{
    if (!usable("count"))
        return 0;
    const std::lock_guard lock(mutex);
    return params.size();
}

int ParamMgr::listParams(dv::IPtrList<dv::IParam*>* list)
{
    if (!usable("listParams") || list == nullptr)
        return -1;
    for (Param* param : all())
        list->add(param);
    return 0;
}

void ParamMgr::destroy()
{
    if (released.exchange(true)) {
        complain("a parameter manager was destroyed twice");
        return;
    }
    for (Param* param : all())
        param->released = true;
    if (const auto books = ledger.lock())
        books->buried(Ledger::Kind::Manager, std::unique_ptr<Tracked>(this));
    else
        delete this;
}

Param* ParamMgr::find(const std::string& name)
{
    const std::lock_guard lock(mutex);
    const auto found = byName.find(name);
    return found != byName.end() ? found->second : nullptr;
}

std::vector<Param*> ParamMgr::all()
{
    const std::lock_guard lock(mutex);
    std::vector<Param*> pointers;
    for (const auto& param : params)
        pointers.push_back(param.get());
    return pointers;
}

bool ParamMgr::usable(const char* operation) const
{
    if (released)
        complain(std::string(operation) + " on a parameter manager that was destroyed");
    return !released;
}

void ParamMgr::complain(const std::string& what) const
{
    if (const auto books = ledger.lock())
        books->complain(what);
}

} // namespace refhost
