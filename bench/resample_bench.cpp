// Resampling throughput, per code path: destination megapixels per second
// through cDIBSection.Resample (the new section included) and for the pixel
// work alone, shared out to the thread pool as Resample does and on one
// thread; against a memcpy of the destination's bytes into fresh pages
// (what making the new section costs at least) and into a warm buffer, and
// the plain formula, all measured in the same run. Best of several rounds.
#include "frame/class_table.h"
#include "frame/handles.h"
#include "imaging/resample.h"
#include "imaging/resample_formula.h"
#include "vxTypes32_types.h"

#include <windows.h>

#include <cpuid.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
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
double best_of(int rounds, Work work) {
    double best = 1e30;
    for (int round = 0; round < rounds; ++round) {
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

void print_machine() {
    unsigned brand[12] = {};
    for (unsigned leaf = 0; leaf < 3; ++leaf)
        __get_cpuid(0x80000002 + leaf, &brand[4 * leaf], &brand[4 * leaf + 1], &brand[4 * leaf + 2],
                    &brand[4 * leaf + 3]);
    char name[49] = {};
    std::memcpy(name, brand, 48);
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    std::printf("machine: %s, %lu processors; paths that run here:%s%s%s\n", name, info.dwNumberOfProcessors,
                vx::resample_path_runs_here(vx::resample_path::scalar) ? " scalar" : "",
                vx::resample_path_runs_here(vx::resample_path::sse2) ? " sse2" : "",
                vx::resample_path_runs_here(vx::resample_path::avx2) ? " avx2" : "");
}

const char* path_name(vx::resample_path path) {
    return path == vx::resample_path::avx2 ? "avx2" : path == vx::resample_path::sse2 ? "sse2" : "scalar";
}

}  // namespace

int main(int argc, char** argv) {
    CoInitialize(nullptr);
    print_machine();
    const vx::class_entry* entry = vx::find_class(CLSID_cDIBSection);
    std::mt19937 random(1);
    const size_case cases[] = {{640, 480, 1920, 1440}, {1600, 1200, 800, 600}, {4000, 3000, 1000, 750}};
    const vx::resample_path paths[] = {vx::resample_path::avx2, vx::resample_path::sse2, vx::resample_path::scalar};
    // Best of this many rounds (the first argument): more on a busy machine.
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 15;
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
        const size_t bytes = static_cast<size_t>(stride) * c.height;
        std::vector<unsigned char> destination(bytes, 1), copy_source(bytes, 2);

        // Fresh pages each round; the copy alone is timed.
        double fresh_only = 1e30;
        for (int round = 0; round < rounds; ++round) {
            void* fresh = VirtualAlloc(nullptr, bytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
            const double start = now_seconds();
            std::memcpy(fresh, copy_source.data(), bytes);
            fresh_only = std::min(fresh_only, now_seconds() - start);
            VirtualFree(fresh, 0, MEM_RELEASE);
        }
        const double warm_copy =
            best_of(rounds, [&] { std::memcpy(destination.data(), copy_source.data(), bytes); });
        const double reference = best_of(2, [&] {
            vx::resample_reference({source_bits, c.source_width, c.source_height, source_stride},
                                         destination.data(), c.width, c.height, stride);
        });
        const double megapixels = static_cast<double>(c.width) * c.height / 1e6;
        std::printf("\n%ldx%ld -> %ldx%ld: memcpy of the %.1f MB output %.2f ms into fresh pages, %.3f ms warm; "
                    "plain formula %.1f MP/s\n",
                    c.source_width, c.source_height, c.width, c.height, bytes / 1e6, fresh_only * 1e3,
                    warm_copy * 1e3, megapixels / reference);
        std::printf("  %-7s %10s %10s %10s %12s %12s %10s\n", "path", "Resample", "pixels", "1 thread",
                    "Resample /", "pixels /", "faster");
        std::printf("  %-7s %10s %10s %10s %12s %12s %10s\n", "", "MP/s", "MP/s", "MP/s", "fresh copy",
                    "warm copy", "than plain");
        vx::pixel_view from{source_bits, c.source_width, c.source_height, source_stride,
                            static_cast<size_t>(source_stride) * c.source_height};
        vx::pixel_view to{destination.data(), c.width, c.height, stride, bytes};
        for (vx::resample_path path : paths) {
            if (!vx::choose_resample_path(path)) {
                std::printf("  %-7s does not run here\n", path_name(path));
                continue;
            }
            const int path_rounds = path == vx::resample_path::scalar ? std::min(rounds, 3) : rounds;
            // The call alone: the new section is released after the clock stops.
            double through_interface = 1e30;
            for (int round = 0; round < path_rounds; ++round) {
                vx::com_ptr<_cDIBSection> result;
                const double start = now_seconds();
                source->Resample(c.height, c.width, result.put());
                through_interface = std::min(through_interface, now_seconds() - start);
            }
            const double pixels = best_of(path_rounds, [&] { vx::resample_bilinear(from, to, L"bench", path, true); });
            const double one_thread =
                best_of(path_rounds, [&] { vx::resample_bilinear(from, to, L"bench", path, false); });
            std::printf("  %-7s %10.0f %10.0f %10.0f %11.1fx %11.1fx %9.0fx\n", path_name(path),
                        megapixels / through_interface, megapixels / pixels, megapixels / one_thread,
                        through_interface / fresh_only, pixels / warm_copy, reference / pixels);
        }
    }
    CoUninitialize();
    return 0;
}
