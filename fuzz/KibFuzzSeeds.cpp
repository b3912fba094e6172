// SPDX-License-Identifier: MIT
// Writes the fuzzer's seed corpus: one valid frame of each kind, covering every value
// type, into the folder given as argument (fuzz/corpus). Run by hand after a change
// of the wire format:  cmake --build build --target kib_fuzz_seeds &&
// build/fuzz/kib_fuzz_seeds fuzz/corpus
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KibCodec.h"

namespace {

KibVariantHolder scalar(VARTYPE vt, std::uint64_t bits) {
    VARIANT v{};
    VariantInit(&v);
    v.vt = vt;
    v.ullVal = bits;
    return KibVariantHolder::adopt(v);
}

KibVariantHolder text(const char* s) {
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = s != nullptr ? SysAllocString(s) : nullptr;
    return KibVariantHolder::adopt(v);
}

KibVariantHolder array(VARTYPE t, std::uint32_t count, std::int32_t lbound = 0) {
    SAFEARRAY* a = SafeArrayCreateVector(t, lbound, count);
    for (std::uint32_t i = 0; i < count * a->cbElements; ++i) {
        static_cast<unsigned char*>(a->pvData)[i] = static_cast<unsigned char>(i * 37 + 1);
    }
    VARIANT v{};
    VariantInit(&v);
    v.vt = static_cast<VARTYPE>(VT_ARRAY | t);
    v.parray = a;
    return KibVariantHolder::adopt(v);
}

KibVariantHolder variants(std::vector<KibVariantHolder> items) {
    SAFEARRAY* a = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<std::uint32_t>(items.size()));
    for (std::size_t i = 0; i < items.size(); ++i) {
        static_cast<VARIANT*>(a->pvData)[i] = items[i].release();
    }
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_VARIANT;
    v.parray = a;
    return KibVariantHolder::adopt(v);
}

void write(const std::string& folder, const std::string& name, const std::string& frame) {
    const std::string path = folder + "/" + name;
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return;
    std::fwrite(frame.data(), 1, frame.size(), file);
    std::fclose(file);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 64;
    const std::string folder = argv[1];
    std::string frame;
    std::string error;
    const VARTYPE scalars[] = {VT_EMPTY, VT_NULL, VT_I1,  VT_I2, VT_I4, VT_I8,   VT_UI1,
                               VT_UI2,   VT_UI4,  VT_UI8, VT_R4, VT_R8, VT_DATE, VT_BOOL};
    for (VARTYPE vt : scalars) {
        KibCodec::encodeRequest("Dev", scalar(vt, 0x4000000000000001ull >> (vt % 7)).get(), frame,
                                error);
        write(folder, "request-scalar-" + std::to_string(vt), frame);
        if (vt > VT_NULL) {
            KibCodec::encodeRequest("Dev", array(vt, 3, vt == VT_I4 ? 1 : 0).get(), frame, error);
            write(folder, "request-array-" + std::to_string(vt), frame);
        }
    }
    std::vector<KibVariantHolder> inner;
    inner.push_back(text("00:11:22:33:44:55"));
    inner.push_back(text(nullptr));
    inner.push_back(text(""));
    inner.push_back(array(VT_BSTR, 0));
    std::vector<KibVariantHolder> outer;
    outer.push_back(variants(std::move(inner)));
    outer.push_back(scalar(VT_DATE, 0x40E6A1D000000000ull));
    KibVariantHolder nested = variants(std::move(outer));
    KibCodec::encodeRequest("RemoteLogger", nested.get(), frame, error);
    write(folder, "request-nested", frame);
    KibCodec::encodeValue(nested.get(), frame, error);
    write(folder, "value-nested", frame);

    KibReply reply;
    reply.status = 7;
    reply.value.copyFrom(text("done").get());
    KibCodec::encodeReply(reply, frame, error);
    write(folder, "reply-value", frame);
    reply.status = KIB_E_SERVICE_EXCEPTION;
    reply.value.reset();
    reply.errorKind = KibErrorKind::KibException;
    reply.errorCode = 1;
    reply.errorText = "SetLogSource: invalid addr";
    KibCodec::encodeReply(reply, frame, error);
    write(folder, "reply-error", frame);
    KibCodec::encodeAnnounce({"RemoteLogger", 42, false, {"AppendLog", "SetLogSource"}}, frame,
                             error);
    write(folder, "announce", frame);
    KibCodec::encodeDiscover("Client", frame);
    write(folder, "discover", frame);
    return 0;
}
