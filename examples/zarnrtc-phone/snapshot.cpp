#include "snapshot.h"

#include <png.h>

#include <cstdio>
#include <cstring>

Picture copyFrame(libwebrtc::RTCVideoFrame* f) {
    Picture p;
    p.width = f->width();
    p.height = f->height();
    int cw = (p.width + 1) / 2, ch = (p.height + 1) / 2;
    p.y.resize(size_t(p.width) * p.height);
    p.u.resize(size_t(cw) * ch);
    p.v.resize(size_t(cw) * ch);
    for (int r = 0; r < p.height; ++r)
        std::memcpy(&p.y[size_t(r) * p.width], f->DataY() + size_t(r) * f->StrideY(), p.width);
    for (int r = 0; r < ch; ++r) {
        std::memcpy(&p.u[size_t(r) * cw], f->DataU() + size_t(r) * f->StrideU(), cw);
        std::memcpy(&p.v[size_t(r) * cw], f->DataV() + size_t(r) * f->StrideV(), cw);
    }
    return p;
}

bool writePng(const std::string& path, const Picture& p) {
    if (p.width <= 0 || p.height <= 0) return false;
    FILE* fp = std::fopen(path.c_str(), "wb");
    if (!fp) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(fp);
        return false;
    }
    png_init_io(png, fp);
    png_set_IHDR(png, info, p.width, p.height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    std::vector<uint8_t> row(size_t(p.width) * 3);
    int cw = (p.width + 1) / 2;
    auto clamp = [](int x) { return uint8_t(x < 0 ? 0 : x > 255 ? 255 : x); };
    for (int r = 0; r < p.height; ++r) {
        for (int c = 0; c < p.width; ++c) {
            int yy = p.y[size_t(r) * p.width + c] - 16;
            int uu = p.u[size_t(r / 2) * cw + c / 2] - 128;
            int vv = p.v[size_t(r / 2) * cw + c / 2] - 128;
            row[size_t(c) * 3 + 0] = clamp((298 * yy + 409 * vv + 128) >> 8);
            row[size_t(c) * 3 + 1] = clamp((298 * yy - 100 * uu - 208 * vv + 128) >> 8);
            row[size_t(c) * 3 + 2] = clamp((298 * yy + 516 * uu + 128) >> 8);
        }
        png_write_row(png, row.data());
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(fp);
    return true;
}
