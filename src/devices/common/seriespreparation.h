// The preparation of a series on the host's thread.
#pragma once

#include "devices/common/serieslife.h"

namespace HwLatixel {

/// Gives a series up that has begun, unless its preparation was kept: also where that ends by an exception.
class SeriesPreparation {
public:
    explicit SeriesPreparation(SeriesLife& seriesLife) : life(&seriesLife) {}
    ~SeriesPreparation()
    {
        if (life != nullptr)
            life->giveUp();
    }
    SeriesPreparation(const SeriesPreparation&) = delete;
    SeriesPreparation& operator=(const SeriesPreparation&) = delete;

    void keep() { life = nullptr; }

private:
    SeriesLife* life;
};

} // namespace HwLatixel
