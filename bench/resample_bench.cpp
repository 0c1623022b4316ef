// Resampling throughput: destination megapixels per second through
// cDIBSection.Resample (the new section included) and for the pixel work
// alone, against the plain formula and a memcpy of the destination's bytes
// measured in the same run. Best of five rounds.
#include "frame/class_table.h"
#include "frame/handles.h"
#include "imaging/resample.h"
#include "imaging/resample_reference.h"
#include "vxTypes32_types.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace {

double now_seconds() {
    LARGE_INTEGER counter, frequency;
    QueryPerformanceCounter(&counter);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

template <class Work>
double best_of_five(Work work) {
    double best = 1e30;
    for (int round = 0; round < 5; ++round) {
        const double start = now_seconds();
        work();
        best = std::min(best, now_seconds() - start);
    }
    return best;
}

long stride_for(long width) { return (width * 3 + 3) & ~3L; }

struct size_case {
    long source_width, source_height, width, height;
};

}  // namespace

int main() {
    CoInitialize(nullptr);
    const vx::class_entry* entry = vx::find_class(CLSID_cDIBSection);
    std::mt19937 random(1);
    const size_case cases[] = {
        {1024, 768, 1600, 1200}, {4000, 3000, 1000, 750}, {1600, 1200, 1024, 768}, {640, 480, 1920, 1440}};
    std::printf("%-24s %10s %10s %10s %9s %9s\n", "resample", "Resample", "pixels", "reference", "fast/ref",
                "/memcpy");
    std::printf("%-24s %10s %10s %10s %9s %9s\n", "", "MP/s", "MP/s", "MP/s", "", "");
    for (const size_case& c : cases) {
        vx::com_ptr<_cDIBSection> source;
        entry->create(*entry, IID__cDIBSection, source.put_void());
        VARIANT_BOOL made = VARIANT_FALSE;
        source->Create(c.source_width, c.source_height, &made);
        LONG_PTR bits = 0;
        source->get_DIBSectionBitsPtr(&bits);
        auto* source_bits = reinterpret_cast<unsigned char*>(bits);
        const long source_stride = stride_for(c.source_width), stride = stride_for(c.width);
        for (long i = 0; i < source_stride * c.source_height; ++i) source_bits[i] = static_cast<unsigned char>(random());

        const double through_interface = best_of_five([&] {
            vx::com_ptr<_cDIBSection> result;
            source->Resample(c.height, c.width, result.put());
        });
        std::vector<unsigned char> destination(stride * c.height), copy_source(stride * c.height, 1);
        vx::pixel_view from{source_bits, c.source_width, c.source_height, source_stride,
                            static_cast<size_t>(source_stride * c.source_height)};
        vx::pixel_view to{destination.data(), c.width, c.height, stride, destination.size()};
        const double pixels_only = best_of_five([&] { vx::resample_bilinear(from, to, L"bench"); });
        const double reference = best_of_five([&] {
            vx::test::resample_reference({source_bits, c.source_width, c.source_height, source_stride},
                                         destination.data(), c.width, c.height, stride);
        });
        const double copy = best_of_five([&] { std::memcpy(destination.data(), copy_source.data(), destination.size()); });
        const double megapixels = static_cast<double>(c.width) * c.height / 1e6;
        char label[64];
        std::snprintf(label, sizeof label, "%ldx%ld -> %ldx%ld", c.source_width, c.source_height, c.width, c.height);
        std::printf("%-24s %10.1f %10.1f %10.1f %8.1fx %8.1fx\n", label, megapixels / through_interface,
                    megapixels / pixels_only, megapixels / reference, reference / pixels_only, pixels_only / copy);
    }
    CoUninitialize();
    return 0;
}
