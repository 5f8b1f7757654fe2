// What recording costs a call of the instrument's library: through the recorder, and past it. Ends with 1
// when the median of the difference is beyond the limit.
#include <TaviSDK/TaviSDK.h>
#include <TaviSDK/VirtualInstrument.h>

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr double kLimit = 5e-6; // seconds
constexpr std::size_t kCalls = 20000;

template <typename Call>
double median(Call call) {
    std::vector<double> seconds(kCalls);
    for (double& took : seconds) {
        const auto begin = std::chrono::steady_clock::now();
        call();
        took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
    std::nth_element(seconds.begin(), seconds.begin() + kCalls / 2, seconds.end());
    return seconds[kCalls / 2];
}

// The function of the library itself, which the recorder stands in front of.
template <typename Function>
Function* past(const char* name) {
    Dl_info own{};
    void* library = nullptr;
    if (dladdr(reinterpret_cast<void*>(&TaviSDK::powerCycle), &own) != 0) {
        library = dlopen(own.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    }
    void* const function = library != nullptr ? dlsym(library, name) : nullptr;
    if (function == nullptr) {
        std::fprintf(stderr, "there is no %s\n", name);
        std::exit(1);
    }
    return reinterpret_cast<Function*>(function);
}

bool show(const char* name, double recorded, double direct) {
    const double cost = recorded - direct;
    std::printf("%-24s %7.3f us recorded, %7.3f us otherwise: %.3f us\n", name, recorded * 1e6, direct * 1e6,
                cost * 1e6);
    return cost <= kLimit;
}

} // namespace

int main() {
    std::string folder = "/tmp/recorder-benchmark-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string file = folder + "/recording.jsonl";
    setenv("TAVI_RECORDING", file.c_str(), 1);
    TaviSDK::Simulation simulation;
    simulation.timeScale = 0.0;
    simulation.noise = 0.01; // readings of as many digits as real ones
    TaviSDK::setSimulation(simulation);
    Tavi_SetOption("MeasurementMode", "SingleReflectance");
    if (Tavi_Calibrate() != 0 || Tavi_TriggerMeasurement() != 0) {
        std::fprintf(stderr, "there is no reading: %s\n", Tavi_GetOption("LastError"));
        return 1;
    }

    auto* const getOption = past<decltype(Tavi_GetOption)>("Tavi_GetOption");
    auto* const setOption = past<decltype(Tavi_SetOption)>("Tavi_SetOption");
    auto* const getSpectrum = past<decltype(Tavi_GetSpectrum)>("Tavi_GetSpectrum");
    float spectrum[36];
    bool isWithin =
        show("Tavi_GetOption", median([] { Tavi_GetOption("Beep"); }), median([&] { getOption("Beep"); }));
    isWithin &= show("Tavi_SetOption", median([] { Tavi_SetOption("Beep", "no"); }),
                     median([&] { setOption("Beep", "no"); }));
    isWithin &= show("Tavi_GetSpectrum", median([&] { Tavi_GetSpectrum(spectrum, 0); }),
                     median([&] { getSpectrum(spectrum, 0); }));
    unlink(file.c_str());
    rmdir(folder.c_str());
    return isWithin ? 0 : 1;
}
