// What the tests of the board's services stand on: a command manager that records, and a host's parameters.
#pragma once

#include "refhost/ledger.h"
#include "refhost/parammgr.h"
#include "support/scriptedftdi.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

/// Records commands as lines "perif command d0 d1 d2 d3 flags" or "perif command [payload] flags", in hexadecimal.
/// What is shifted with flags 7 goes to `slave`, and its answer to the next receive.
class RecordingManager {
public:
    /// Nothing comes between here.
    struct Exchange {
        explicit Exchange(RecordingManager&) {}
    };

    int send(unsigned char perif, unsigned char command, unsigned char d0, unsigned char d1, unsigned char d2,
             unsigned char d3, unsigned char flags)
    {
        return record(hex(Bytes{perif, command, d0, d1, d2, d3, flags}));
    }
    int send(unsigned char perif, unsigned char command, unsigned char* data, unsigned long size, unsigned char flags)
    {
        const Bytes payload(data, data + size);
        if (flags == 7 && slave)
            answer = slave(payload);
        return record(hex(Bytes{perif, command}) + " [" + hex(payload) + "] " + hex(Bytes{flags}));
    }
    int receiveRaw(unsigned char* buffer, unsigned long* size, double /*timeout*/)
    {
        *size = std::min<unsigned long>(*size, answer.size());
        std::copy_n(answer.begin(), *size, buffer);
        return record("receive " + std::to_string(*size));
    }

    std::function<Bytes(const Bytes&)> slave;
    Bytes answer;
    std::vector<std::string> lines;
    std::map<std::string, int> results; ///< Results by line; 0 if not here.

private:
    int record(const std::string& line) { return lines.push_back(line), results[line]; }
};

/// The parameter store of a host whose complaints nobody reads.
inline refhost::ParamMgr hostParams()
{
    return refhost::ParamMgr(std::make_shared<refhost::Ledger>());
}

/// A host's store that knows every name and hands out nothing.
class EmptyHandedMgr : public dv::IParamMgr {
public:
    int addParam(const char*, const char*, int, std::size_t, const void*, dv::ParamFunc, long, unsigned) override
    {
        return -1;
    }
    int addByte(const char*, const char*, unsigned char, dv::ParamFunc, long, unsigned) override { return -1; }
    int addBool(const char*, const char*, bool, dv::ParamFunc, long, unsigned) override { return -1; }
    int addInt32(const char*, const char*, int, dv::ParamFunc, long, unsigned) override { return -1; }
    int addDouble(const char*, const char*, double, dv::ParamFunc, long, unsigned) override { return -1; }
    int addString(const char*, const char*, const char*, dv::ParamFunc, long, unsigned) override { return -1; }
    dv::IParam* get(const char*) override { return nullptr; }
    bool exists(const char*) override { return true; }
    std::size_t count() override { return 0; }
    int listParams(dv::IPtrList<dv::IParam*>*) override { return -1; }
    void destroy() override {}
};
