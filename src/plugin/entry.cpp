// The plug-in's one exported function and the one library object behind it.
#include "plugin/latixel.h"

namespace HwLatixel {

HwLib hwLib;

} // namespace HwLatixel

extern "C" __attribute__((visibility("default"))) dv::IHwLib* dvGetHwLib()
{
    return &HwLatixel::hwLib;
}
