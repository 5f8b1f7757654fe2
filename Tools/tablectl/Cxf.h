#pragma once

#include "Measured.h"

#include <string>

namespace tablectl {

// The measurement as CxF3 (ISO 17972): one object a patch, the mean of its readings, with
// ReflectanceSpectrum, ColorCIELab, device values (CMYK in percent, RGB) and the remaining fields as tags;
// illuminant, observer and measurement condition are said once for all. Throws DeviceFailure when the
// library cannot make it.
std::string cxfText(const Measured& measured);

} // namespace tablectl
