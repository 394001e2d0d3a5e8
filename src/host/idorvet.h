// What the plug-in calls of the host's main object and of the services behind it.
#pragma once

#include "host/datatype.h"
#include "host/impxframe.h"
#include "host/iparam.h"

namespace dv {

class IFrameFactory {
public:
    /// A new frame of `width` times `height` pixels of the _DataType `dataType`, owned by the caller.
    /// Width and height are nominal: the chips' blocks lie in the frame one after another.
    virtual IMpxFrame* createFrame(unsigned width, unsigned height, int dataType) = 0;
};

class IUiService {
public:
    /// Shows a message to the user; `kind` 3 is a warning.
    virtual void showMessage(const char* title, const char* text, int kind) = 0;
};

} // namespace dv

class IDorvet {
public:
    /// A new parameter manager, owned by the caller and released through its `destroy`.
    virtual dv::IParamMgr* createParamMgr() = 0;
    virtual dv::IFrameFactory* frameFactory() = 0;
    /// The message service, or null when there is no user interface.
    virtual dv::IUiService* uiService() = 0;
    /// Directory for log files.
    virtual const char* logDirectory() = 0;
    /// Directory of settings files.
    virtual const char* configDirectory() = 0;
};
