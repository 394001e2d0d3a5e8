// What the tests of the board's services stand on: a command manager that records, and a small parameter store.
#pragma once

#include "host/iparam.h"
#include "shared/datatype.h"
#include "support/scriptedftdi.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

/// Records commands as lines "perif command d0 d1 d2 d3 flags" or "perif command [payload] flags", in hexadecimal.
/// What is shifted with flags 7 goes to `slave`, and its answer to the next receive.
class RecordingManager {
public:
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
    int receiveRaw(unsigned char* buffer, unsigned long* size, double timeout)
    {
        lastTimeout = timeout;
        *size = std::min<unsigned long>(*size, answer.size());
        std::copy_n(answer.begin(), *size, buffer);
        return record("receive " + std::to_string(*size));
    }

    std::function<Bytes(const Bytes&)> slave;
    Bytes answer;
    std::vector<std::string> lines;
    std::map<std::string, int> results; ///< Results by line; 0 if not here.
    double lastTimeout = 0;

private:
    int record(const std::string& line) { return lines.push_back(line), results[line]; }
};

/// A parameter that holds bytes.
class TestParam : public dv::IParam {
public:
    const char* name() override { return ""; }
    std::size_t size() override { return count; }
    unsigned char getByte() override { return bytes.at(0); }
    bool getBool() override { return getByte() != 0; }
    int getInt32() override { return getByte(); }
    double getFloat() override { return *reinterpret_cast<double*>(bytes.data()); }
    int toString(dv::IString* text) override { return text->set(std::string(bytes.begin(), bytes.end()).c_str()); }
    int setData(const void* data, std::size_t byteSize) override
    {
        const auto* first = static_cast<const unsigned char*>(data);
        bytes.assign(first, first + byteSize);
        return 0;
    }
    int setByte(unsigned char value) override { return setData(&value, sizeof(value)); }
    int setBool(bool value) override { return setByte(value); }
    int setInt32(int value) override { return setData(&value, sizeof(value)); }
    int setDouble(double value) override { return setData(&value, sizeof(value)); }
    int setString(const char* value) override { return setData(value, std::strlen(value)); }
    void enableCallback(bool) override {}

    int type = DT_UNKNOWN;
    std::size_t count = 0;
    Bytes bytes;
    dv::ParamFunc callback = nullptr;
    long user = 0;
    unsigned flags = 99;
};

class TestParamMgr : public dv::IParamMgr {
public:
    int addParam(const char* name, const char*, int type, std::size_t items, const void* value, dv::ParamFunc callback,
                 long user, unsigned flags) override
    {
        TestParam& param = params_[name];
        param.type = type;
        param.count = items;
        param.callback = callback;
        param.user = user;
        param.flags = flags;
        return param.setData(value, items * sizeofType[type]);
    }
    int addByte(const char*, const char*, unsigned char, dv::ParamFunc, long, unsigned) override { return -1; }
    int addBool(const char*, const char*, bool, dv::ParamFunc, long, unsigned) override { return -1; }
    int addInt32(const char*, const char*, int, dv::ParamFunc, long, unsigned) override { return -1; }
    int addDouble(const char*, const char*, double, dv::ParamFunc, long, unsigned) override { return -1; }
    int addString(const char* name, const char* description, const char* value, dv::ParamFunc callback, long user,
                  unsigned flags) override
    {
        return addParam(name, description, DT_CHAR, std::strlen(value), value, callback, user, flags);
    }
    TestParam* get(const char* name) override { return exists(name) ? &params_[name] : nullptr; }
    bool exists(const char* name) override { return params_.contains(name); }
    std::size_t count() override { return params_.size(); }
    int listParams(dv::IPtrList<dv::IParam*>*) override { return -1; }
    void destroy() override {}

    /// Shorthand for tests: the parameter, made if it isn't there.
    TestParam& operator[](const char* name) { return params_[name]; }

private:
    std::map<std::string, TestParam> params_;
};
