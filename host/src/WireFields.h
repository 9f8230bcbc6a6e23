// Little-endian fixed-width fields and length-prefixed byte runs, written
// into a frame buffer and read back from a received payload.
//
// THREADING CONTRACT: plain values; one thread per instance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orin::xfer::host::wire {

inline void PutU8(std::vector<uint8_t>& out, uint8_t value) { out.push_back(value); }

inline void PutU32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

inline void PutU64(std::vector<uint8_t>& out, uint64_t value)
{
    for (int shift = 0; shift < 64; shift += 8) {
        out.push_back(static_cast<uint8_t>(value >> shift));
    }
}

inline void PutBytes(std::vector<uint8_t>& out, const uint8_t* data, size_t size)
{
    PutU32(out, static_cast<uint32_t>(size));
    out.insert(out.end(), data, data + size);
}

inline void PutString(std::vector<uint8_t>& out, const std::string& text)
{
    PutBytes(out, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

inline uint32_t GetU32At(const uint8_t* bytes)
{
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

// Reads the fields of one payload in order. The first field that does not
// fit records an error naming it; later reads then fail too.
class PayloadReader {
public:
    PayloadReader(const std::string& payload, const char* frameName)
        : mData(reinterpret_cast<const uint8_t*>(payload.data())), mSize(payload.size()), mFrameName(frameName)
    {
    }

    bool U8(uint8_t& value, const char* field)
    {
        if (!Need(1, field)) {
            return false;
        }
        value = mData[mPos++];
        return true;
    }

    bool Bool(bool& value, const char* field)
    {
        uint8_t raw = 0;
        if (!U8(raw, field)) {
            return false;
        }
        if (raw > 1) {
            return Bad(std::string("field ") + field + " of a " + mFrameName + " frame holds " +
                       std::to_string(raw) + ", expected 0 or 1");
        }
        value = raw == 1;
        return true;
    }

    bool U32(uint32_t& value, const char* field)
    {
        if (!Need(4, field)) {
            return false;
        }
        value = GetU32At(mData + mPos);
        mPos += 4;
        return true;
    }

    bool U64(uint64_t& value, const char* field)
    {
        if (!Need(8, field)) {
            return false;
        }
        value = 0;
        for (int index = 7; index >= 0; --index) {
            value = value << 8 | mData[mPos + index];
        }
        mPos += 8;
        return true;
    }

    // A u32 length and that many bytes; the length is checked against what
    // is left of the payload before anything is copied.
    bool String(std::string& value, const char* field)
    {
        size_t length = 0;
        if (!RunLength(length, field)) {
            return false;
        }
        value.assign(reinterpret_cast<const char*>(mData + mPos), length);
        mPos += length;
        return true;
    }

    bool Bytes(std::vector<uint8_t>& value, const char* field)
    {
        size_t length = 0;
        if (!RunLength(length, field)) {
            return false;
        }
        value.assign(mData + mPos, mData + mPos + length);
        mPos += length;
        return true;
    }

    // Reads a run's length and checks that its bytes are all there; the
    // caller takes them from Position().
    bool RunLength(size_t& length, const char* field)
    {
        uint32_t announced = 0;
        if (!U32(announced, field)) {
            return false;
        }
        if (announced > mSize - mPos) {
            return Bad(std::string("field ") + field + " of a " + mFrameName + " frame announces " +
                       std::to_string(announced) + " bytes but only " + std::to_string(mSize - mPos) +
                       " are left in the frame");
        }
        length = announced;
        return true;
    }

    bool ExpectEnd()
    {
        if (mError.empty() && mPos != mSize) {
            return Bad(std::to_string(mSize - mPos) + " unexpected bytes after the last field of a " + mFrameName +
                       " frame");
        }
        return mError.empty();
    }

    size_t Position() const { return mPos; }
    void Skip(size_t count) { mPos += count; }
    const std::string& Error() const { return mError; }

private:
    bool Need(size_t count, const char* field)
    {
        if (!mError.empty()) {
            return false;
        }
        if (mSize - mPos < count) {
            return Bad(std::string("field ") + field + " does not fit in its " + mFrameName + " frame (" +
                       std::to_string(mSize - mPos) + " bytes left, " + std::to_string(count) + " needed)");
        }
        return true;
    }

    bool Bad(std::string error)
    {
        if (mError.empty()) {
            mError = std::move(error);
        }
        return false;
    }

    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
    const char* mFrameName;
    std::string mError;
};

}  // namespace orin::xfer::host::wire
