// The C++ results the Python tests compare against: fills a frame from a file of raw bytes and
// writes what getData (or, given a color space, getDataInColorSpace) delivers.
//   python_reference CODE WIDTH HEIGHT INPUT OUTPUT [SPACE TYPE PATTERN]   (TYPE -1: the frame's own)
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include <lumoframekit/lumoframekit.h>

namespace {
const int kElementBytes[8] = {1, 1, 2, 2, 4, 4, 4, 8};
}  // namespace

int main(int argc, char** argv) {
    using namespace lumoframekit;
    if (argc != 6 && argc != 9) return 2;
    std::unique_ptr<IFrame> frame(frameFactory(static_cast<frametypes::FRAMETYPE>(std::strtoul(argv[1], nullptr, 0)),
                                               std::atoi(argv[2]), std::atoi(argv[3])));
    std::ifstream in(argv[4], std::ios::binary);
    const std::vector<char> raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!frame || raw.size() != frame->getBufferSize()) return 3;
    frame->setBufferData(reinterpret_cast<const std::uint8_t*>(raw.data()));
    std::ofstream out(argv[5], std::ios::binary);
    if (argc == 6) {
        const FrameDims d = *frame->getDimensions();
        std::vector<char> planes(std::size_t{d.width} * d.height * d.bands * kElementBytes[frame->getDataType() & 7]);
        void* dest[] = {planes.data(), nullptr};
        frame->getData(dest);
        out.write(planes.data(), static_cast<std::streamsize>(planes.size()));
        return 0;
    }
    const std::int32_t type = std::atoi(argv[7]);
    HostAllocator allocator;
    void* result = nullptr;
    FrameDims dims{};
    frame->getDataInColorSpace(&result, &dims, static_cast<std::uint32_t>(std::atoi(argv[6])),
                               type >= 0 ? &type : nullptr, static_cast<std::uint32_t>(std::atoi(argv[8])), &allocator);
    if (result == nullptr) return 4;
    const int element = kElementBytes[(type >= 0 ? type : frame->getDataType()) & 7];
    out.write(static_cast<const char*>(result),
              static_cast<std::streamsize>(std::size_t{dims.width} * dims.height * dims.bands * element));
    allocator.release(result);
    return 0;
}
