// The host's parameter store: named, typed values with callbacks into the plug-in.
#pragma once

#include "host/datatype.h"
#include "host/values.h"

#include <cstddef>
#include <string>
#include <vector>

namespace dv {

class IParam;

/// Called by the host with `isRead` true before it hands out a value, so that the plug-in can refresh it,
/// and with `isRead` false after it has stored a new one. Returns 0.
using ParamFunc = int (*)(IParam* param, bool isRead, long user);

/// One named value, or an array of values of one type.
class IParam {
public:
    virtual const char* name() = 0;
    /// Number of items.
    virtual std::size_t size() = 0;

    virtual unsigned char getByte() = 0;
    virtual bool getBool() = 0;
    virtual int getInt32() = 0;
    virtual double getFloat() = 0;
    /// Writes the value as text into `text`.
    virtual int toString(IString* text) = 0;

    /// Replaces the raw content by `byteSize` bytes.
    virtual int setData(const void* data, std::size_t byteSize) = 0;
    virtual int setByte(unsigned char value) = 0;
    virtual int setBool(bool value) = 0;
    virtual int setInt32(int value) = 0;
    virtual int setDouble(double value) = 0;
    virtual int setString(const char* value) = 0;

    /// Switches the parameter's callback on or off.
    virtual void enableCallback(bool enable) = 0;

    /// The value as text.
    std::string getString()
    {
        String text;
        toString(&text);
        return text;
    }
};

/// A set of parameters. The host makes one with `IDorvet::createParamMgr`; whoever asked for it releases it.
class IParamMgr {
public:
    /// Adds a parameter of `count` items of the _DataType `dataType`; `defaultValue` points at the initial content.
    virtual int addParam(const char* name, const char* description, int dataType, std::size_t count,
                         const void* defaultValue, ParamFunc callback, long user, unsigned flags) = 0;
    virtual int addByte(const char* name, const char* description, unsigned char defaultValue, ParamFunc callback,
                        long user, unsigned flags) = 0;
    virtual int addBool(const char* name, const char* description, bool defaultValue, ParamFunc callback, long user,
                        unsigned flags) = 0;
    virtual int addInt32(const char* name, const char* description, int defaultValue, ParamFunc callback, long user,
                         unsigned flags) = 0;
    virtual int addDouble(const char* name, const char* description, double defaultValue, ParamFunc callback, long user,
                          unsigned flags) = 0;
    virtual int addString(const char* name, const char* description, const char* defaultText, ParamFunc callback,
                          long user, unsigned flags) = 0;

    /// The parameter of that name, or null.
    virtual IParam* get(const char* name) = 0;
    virtual bool exists(const char* name) = 0;
    /// Number of parameters.
    virtual std::size_t count() = 0;
    /// Appends all parameters to `list`, in the order in which they were added.
    virtual int listParams(IPtrList<IParam*>* list) = 0;
    /// Releases the manager with its parameters.
    virtual void destroy() = 0;

    /// All parameters, in the order in which they were added.
    std::vector<IParam*> params()
    {
        PtrList<IParam*> list;
        listParams(&list);
        return list.vect();
    }
};

} // namespace dv
