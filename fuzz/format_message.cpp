// FormatMessage and DoFormatMsg with an arbitrary message text, a buffer
// size taken from the input and a fixed array of 99 string arguments (one
// for every insert number the syntax can name). The buffer and the argument
// array are heap blocks of exactly their size, so any access outside them is
// caught.
//
// Input: byte 0 chooses the call, bytes 1-2 the buffer size, the rest is the
// text.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <tvcommonutil.h>

namespace {

constexpr int kArguments = 99;

struct Arguments {
    Arguments() {
        for (int i = 0; i < kArguments; ++i) {
            // Lengths from 1 to 40 so that inserts cut at every position.
            texts.push_back(std::string(1 + i % 40, static_cast<char>('A' + i % 26)));
        }
        values = new unsigned long[kArguments];
        for (int i = 0; i < kArguments; ++i) {
            values[i] = reinterpret_cast<unsigned long>(texts[i].c_str());
        }
    }
    std::vector<std::string> texts;
    unsigned long* values;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Arguments args;
    if (size < 3) return 0;
    const unsigned mode = data[0];
    const size_t bufferSize =
        (static_cast<size_t>(data[1]) | static_cast<size_t>(data[2]) << 8) % 4097;
    std::vector<char> text(data + 3, data + size);
    text.push_back('\0');
    const size_t textLen = strlen(text.data());

    char* out = static_cast<char*>(malloc(bufferSize ? bufferSize : 1));
    switch (mode % 4) {
        case 0: {
            int r = DoFormatMsg(text.data(), out, static_cast<int>(bufferSize), args.values);
            if (bufferSize > 0 && (r < 0 || static_cast<size_t>(r) >= bufferSize ||
                                   strlen(out) > static_cast<size_t>(r))) {
                abort();
            }
            break;
        }
        case 1: {
            int r = FormatMessage(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY,
                                  text.data(), 0, 0, out, bufferSize,
                                  reinterpret_cast<va_list*>(args.values));
            if (bufferSize > 0 && static_cast<size_t>(r) >= bufferSize) abort();
            break;
        }
        case 2: {
            int r = FormatMessage(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_IGNORE_INSERTS,
                                  text.data(), 0, 0, out, bufferSize, nullptr);
            if (static_cast<size_t>(r) != textLen + 1) abort();
            break;
        }
        case 3: {
            char* allocated = nullptr;
            int r = FormatMessage(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING |
                                      FORMAT_MESSAGE_ARGUMENT_ARRAY,
                                  text.data(), 0, 0, reinterpret_cast<char*>(&allocated), 0,
                                  reinterpret_cast<va_list*>(args.values));
            // A %c insert of an argument whose low byte is 0 puts a zero byte
            // inside the text, so the text may be shorter than the count.
            if (allocated == nullptr || strlen(allocated) > static_cast<size_t>(r)) abort();
            free(allocated);
            break;
        }
    }
    free(out);
    return 0;
}
