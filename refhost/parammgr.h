// The host's parameter store for one device.
#pragma once

#include "refhost/ledger.h"
#include "refhost/param.h"

#include <map>

namespace refhost {

/// A set of parameters in the order in which they were added. Safe for use by any thread. A parameter stays at its
/// address until the host ends.
///
/// Recorded as complaints: a name that is null, empty or there already (the first parameter stays), a type without a
/// meaning, content above 64 MiB, a `get` for a name that does not exist, any use after `destroy`. The add
/// operations return 0, or -1 when nothing was added.
class ParamMgr final : public dv::IParamMgr, public Tracked {
public:
    explicit ParamMgr(const std::shared_ptr<Ledger>& ledger);

    int addParam(const char* name, const char* description, int dataType, std::size_t count, const void* defaultValue,
                 dv::ParamFunc callback, long user, unsigned flags) override;
    int addByte(const char* name, const char* description, unsigned char defaultValue, dv::ParamFunc callback,
                long user, unsigned flags) override;
    int addBool(const char* name, const char* description, bool defaultValue, dv::ParamFunc callback, long user,
                unsigned flags) override;
    int addInt32(const char* name, const char* description, int defaultValue, dv::ParamFunc callback, long user,
                 unsigned flags) override;
    int addDouble(const char* name, const char* description, double defaultValue, dv::ParamFunc callback, long user,
                  unsigned flags) override;
    int addString(const char* name, const char* description, const char* defaultText, dv::ParamFunc callback, long user,
                  unsigned flags) override;
    dv::IParam* get(const char* name) override;
    bool exists(const char* name) override;
    std::size_t count() override;
    int listParams(dv::IPtrList<dv::IParam*>* list) override;
    void destroy() override;

    /// The host's own way to a parameter: null for an unknown name, and no complaint.
    Param* find(const std::string& name);
    /// All parameters, in order.
    std::vector<Param*> all();

private:
    int add(ParamTraits traits, const void* initial);
    bool usable(const char* operation) const;
    void complain(const std::string& what) const;

    const std::weak_ptr<Ledger> ledger;
    std::atomic<bool> released{false};

    mutable std::mutex mutex; // guards the two below
    std::vector<std::unique_ptr<Param>> params;
    std::map<std::string, Param*, std::less<>> byName;
};

} // namespace refhost
