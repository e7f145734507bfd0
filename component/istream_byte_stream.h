// The core's byte-stream seam over a host's IStream.
#pragma once

#include <objidl.h>

#include "platform/byte_stream.h"

namespace zpdf::com {

class IStreamByteStream final : public ByteStream {
public:
    explicit IStreamByteStream(IStream* stream) : stream_(stream) {}

    HResult Read(void* data, std::size_t size, std::size_t* read) override {
        ULONG got = 0;
        const HRESULT hr = stream_->Read(data, static_cast<ULONG>(size), &got);
        if (read != nullptr) *read = got;
        return FAILED(hr) ? hr : S_OK;
    }
    HResult Write(const void* data, std::size_t size) override {
        ULONG written = 0;
        const HRESULT hr = stream_->Write(data, static_cast<ULONG>(size), &written);
        if (FAILED(hr)) return hr;
        return written == size ? S_OK : STG_E_MEDIUMFULL;
    }
    HResult Seek(std::int64_t offset, SeekOrigin origin, std::uint64_t* position) override {
        LARGE_INTEGER move;
        move.QuadPart = offset;
        ULARGE_INTEGER now{};
        const HRESULT hr = stream_->Seek(move, static_cast<DWORD>(origin), &now);
        if (position != nullptr) *position = now.QuadPart;
        return hr;
    }

private:
    IStream* stream_;
};

}  // namespace zpdf::com
