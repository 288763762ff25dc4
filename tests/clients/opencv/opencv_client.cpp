// opencv_client list | FORMAT FRAMES: opens the first camera with OpenCV's DirectShow capture. list: what it is set to.
// A format, bgr24 or what a FOURCC says: raw frames to the standard output, bytes B, G, R and the top line first, after
// the camera was opened, read, released and opened again.
#include <opencv2/videoio.hpp>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int fourccOf(const std::string& format) {
    return format == "yuyv422"   ? cv::VideoWriter::fourcc('Y', 'U', 'Y', '2')
           : format == "uyvy422" ? cv::VideoWriter::fourcc('U', 'Y', 'V', 'Y')
                                 : -1;
}

bool failed(const char* what) {
    std::fprintf(stderr, "error: %s\n", what);
    return false;
}

/// Sets format and size as applications do, in this order.
bool open(cv::VideoCapture& camera, int fourcc) {
    if (!camera.open(0, cv::CAP_DSHOW)) return failed("isOpened() is false");
    const double width = camera.get(cv::CAP_PROP_FRAME_WIDTH), height = camera.get(cv::CAP_PROP_FRAME_HEIGHT);
    if (fourcc != -1 && !camera.set(cv::CAP_PROP_FOURCC, fourcc)) return failed("set(CAP_PROP_FOURCC) is false");
    if (!camera.set(cv::CAP_PROP_FRAME_WIDTH, width) || !camera.set(cv::CAP_PROP_FRAME_HEIGHT, height))
        return failed("set(CAP_PROP_FRAME_HEIGHT) is false");
    return true;
}

bool read(cv::VideoCapture& camera, int frames, bool writes) {
    cv::Mat frame;
    for (int i = 0; i < frames; ++i) {
        if (!camera.read(frame)) return failed("read() is false");
        for (int line = 0; writes && line < frame.rows; ++line)
            std::fwrite(frame.ptr(line), frame.elemSize(), static_cast<size_t>(frame.cols), stdout);
        if (writes) std::fflush(stdout);
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    _setmode(_fileno(stdout), _O_BINARY);
    const std::string format = argc > 1 ? argv[1] : "list";
    cv::VideoCapture camera;
    if (format == "list") {
        if (!open(camera, -1)) return 1;
        const int code = static_cast<int>(camera.get(cv::CAP_PROP_FOURCC));
        std::printf("OpenCV %s, camera 0: %gx%g at %g, format code 0x%08X\n", cv::getVersionString().c_str(),
                    camera.get(cv::CAP_PROP_FRAME_WIDTH), camera.get(cv::CAP_PROP_FRAME_HEIGHT),
                    camera.get(cv::CAP_PROP_FPS), static_cast<unsigned>(code));
        return 0;
    }
    if (!open(camera, fourccOf(format)) || !read(camera, 5, false)) return 1;
    camera.release();
    return open(camera, fourccOf(format)) && read(camera, argc > 2 ? std::atoi(argv[2]) : 1, true) ? 0 : 1;
}
