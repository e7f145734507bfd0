// Drives ZPdfCntObj.dll the way a COM client does: created by ProgID, called through its vtables
// and the engine interfaces' IDispatch, persisted through OLE streams, its failures described per
// interface. What the classes pass on to the core is the core tests' part; here it is what only
// the COM shell does.
//   com_client DOC.pdf LETTERHEAD.pdf
// DOC.pdf: two pages of 200 x 300 pt, the first with a black square at (50,100)-(100,150).
// Prints one line per check and a closing "N passed, N failed".
#include <tuple>

#include "com_test.h"

namespace {

void Run(const std::wstring& doc, const std::wstring& letterhead_path) {
    auto object = Open(doc);
    auto letterhead = Open(letterhead_path, L"Ostrand.ZPdfContentObject.1");
    auto element = Create<IZPdfContentElement>(L"Ostrand.ZPdfContentElement.1");
    auto zobject = Query<IZObject>(object);
    auto zelement = Query<IZElement>(element);
    LONG kinds[2] = {};
    Check(zobject != nullptr && zelement != nullptr && letterhead != nullptr &&
              zobject->GetKind(&kinds[0]) == S_OK && zelement->GetKind(&kinds[1]) == S_OK &&
              kinds[0] == 305 && kinds[1] == 305,
          "created by ProgID; IZObject and IZElement give the kind 305");
    if (zobject == nullptr || zelement == nullptr || letterhead == nullptr) return;

    // The saved file keeps the attributes the replaced one had.
    const DWORD kept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE;
    SetFileAttributesW(doc.c_str(), kept);
    const HRESULT hr = object->AppendPages(letterhead.Get());
    Check(hr == S_OK && object->Save() == S_OK && (GetFileAttributesW(doc.c_str()) & kept) == kept,
          "the saved file keeps the hidden attribute of the file it replaced", hr);

    // Through an OLE stream, its class id first: a new object loads the document's path. (Both
    // classes share the persistence; the element's record is the core's.)
    ComPtr<IStream> stream;
    ComPtr<IZPdfContentObject> restored;
    BSTR held = nullptr;
    CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    OleSaveToStream(Query<IPersistStream>(object).Get(), stream.Get());
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    OleLoadFromStream(stream.Get(), IID_PPV_ARGS(&restored));
    Check(restored != nullptr && restored->GetPdfDocument(&held) == S_OK && Take(held) == doc,
          "the object restored from an OLE stream");

    // Failures, per interface of both classes: the result, ISupportErrorInfo claims the
    // interface, and the error information carries a description and the interface's GUID.
    LONG n = 0;
    const std::tuple<const char*, const ComPtr<IUnknown>, const IID*, HRESULT,
                     std::function<HRESULT()>>
        failures[] = {
            {"SetPdfDocument without a path", object, &IID_IZPdfContentObject, E_INVALIDARG,
             [&] { return object->SetPdfDocument(nullptr, VARIANT_FALSE, nullptr); }},
            {"IZObject Reserved", object, &IID_IZObject, E_NOTIMPL,
             [&] { return zobject->Reserved(0, 0, 0); }},
            {"object Load without a stream", object, &IID_IPersistStreamInit, E_POINTER,
             [&] { return Query<IPersistStreamInit>(object)->Load(nullptr); }},
            {"element GetPosition without places", element, &IID_IZPdfContentElement, E_POINTER,
             [&] { return element->GetPosition(nullptr, &n, &n, &n); }},
            {"IZElement GetKind without a place", element, &IID_IZElement, E_POINTER,
             [&] { return zelement->GetKind(nullptr); }},
            {"element Load without a stream", element, &IID_IPersistStreamInit, E_POINTER,
             [&] { return Query<IPersistStreamInit>(element)->Load(nullptr); }},
        };
    for (const auto& [what, target, iid, expected, call] : failures) {
        SetErrorInfo(0, nullptr);
        const HRESULT result = call();
        GUID guid = GUID_NULL;
        const bool described = !ErrorDescription(&guid).empty() && IsEqualGUID(guid, *iid);
        Check(result == expected && described &&
                  Query<ISupportErrorInfo>(target)->InterfaceSupportsErrorInfo(*iid) == S_OK,
              std::string(what) + " fails, described as a failure of its interface", result);
    }

    // The print engine's interfaces are described in the engine's library, not ours: their
    // IDispatch knows no member of the class's default interface.
    UINT count = 1;
    LPOLESTR name = const_cast<LPOLESTR>(L"PageCount");
    DISPID id = 0;
    Check(zobject->GetTypeInfoCount(&count) == S_OK && count == 0 &&
              zobject->GetIDsOfNames(IID_NULL, &name, 1, 0, &id) == DISP_E_UNKNOWNNAME,
          "IZObject's IDispatch does not describe the default interface");
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return 2;
    CoInitialize(nullptr);
    Run(argv[1], argv[2]);
    return Finish();
}
