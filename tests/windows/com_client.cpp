// Drives ZPdfCntObj.dll the way a COM client does: created by ProgID, called through its vtables
// and the engine interfaces' IDispatch, its type library read back, persisted through OLE
// streams, drawing into a DIB section, its failures described per interface. What the classes
// pass on to the core is the core tests' part; here it is what only the COM shell does.
//   com_client DOC.pdf LETTERHEAD.pdf
// DOC.pdf: two pages of 200 x 300 pt, the first with a black square at (50,100)-(100,150).
// Prints one line per check and a closing "N passed, N failed".
#include <bit>
#include <tuple>

#include "com_test.h"

namespace {

// Saves `source` to an OLE stream, its class id first, and loads a new object from it; `written`:
// the bytes saved.
template <class T>
ComPtr<T> Restored(IUnknown* source, ULARGE_INTEGER* written) {
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    ComPtr<T> restored;
    OleSaveToStream(Query<IPersistStream>(source).Get(), stream.Get());
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, written);
    stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    OleLoadFromStream(stream.Get(), IID_PPV_ARGS(&restored));
    return restored;
}

// The registered library: its type infos (kind, name, flags, help string) and members of
// IZPdfContentObject (DISPID, help string, parameter names).
void TypeLibraryChecks() {
    ComPtr<ITypeLib> lib;
    const HRESULT hr = LoadRegTypeLib(LIBID_ZPdfCntObjLib, 1, 0, 0, &lib);
    Check(SUCCEEDED(hr) && lib->GetTypeInfoCount() == 5, "the registered library, 5 types", hr);
    if (FAILED(hr)) return;
    // Wine's loader reports a dual interface's dispatch side without ole-automation.
    constexpr WORD dual = TYPEFLAG_FDUAL | TYPEFLAG_FNONEXTENSIBLE | TYPEFLAG_FDISPATCHABLE;
    const wchar_t* kinds[TKIND_MAX] = {L"enum",     L"record",  L"module", L"interface",
                                       L"dispatch", L"coclass", L"alias",  L"union"};
    const std::wstring infos[] = {
        L"enum ZePdfOverlayOptions: ",
        L"coclass ZPdfContentObject, creatable: ZPdfContentObject Class",
        L"dispatch IZPdfContentObject, dual: IZPdfContentObject Interface",
        L"coclass ZPdfContentElement, creatable: ZPdfContentElement Class",
        L"dispatch IZPdfContentElement, dual: IZPdfContentElement Interface",
    };
    for (UINT i = 0; i < std::min(5u, lib->GetTypeInfoCount()); ++i) {
        BSTR name = nullptr;
        BSTR help = nullptr;
        ComPtr<ITypeInfo> info;
        TYPEATTR* attr = nullptr;
        lib->GetDocumentation(static_cast<INT>(i), &name, &help, nullptr, nullptr);
        lib->GetTypeInfo(i, &info);
        info->GetTypeAttr(&attr);
        const std::wstring found = kinds[attr->typekind] + (L" " + Take(name)) +
                                   (attr->wTypeFlags & TYPEFLAG_FCANCREATE ? L", creatable" : L"") +
                                   ((attr->wTypeFlags & dual) == dual ? L", dual" : L"") + L": " +
                                   Take(help);
        Check(found == infos[i], "type info " + Narrow(found));
        info->ReleaseTypeAttr(attr);
    }

    ComPtr<ITypeInfo> info;
    lib->GetTypeInfoOfGuid(IID_IZPdfContentObject, &info);
    // The dual interface's vtable side names [out, retval] parameters too.
    ComPtr<ITypeInfo> vtable;
    HREFTYPE ref = 0;
    if (SUCCEEDED(info->GetRefTypeOfImplType(-1, &ref))) info->GetRefTypeInfo(ref, &vtable);
    const std::wstring members[] = {
        L"1 SetPdfDocument(PdfFile Embed Password): method SetPdfDocument",
        L"3 PageCount(pVal): property PageCount",
        L"4 GetPageSize(PageNumber ptWidth ptHeight): method GetPageSize",
        L"12 ImportContent(srcObject pages): method ImportContent",
        L"17 SplitPdf(PdfFile DestPrefix Splitted): Splits a PDF after any page that contains "
        L"@@nd@@",
    };
    for (const std::wstring& expected : members) {
        // The member's name, between the DISPID and the parameters.
        std::wstring member = expected.substr(expected.find(' ') + 1);
        LPOLESTR name = member.erase(member.find('(')).data();
        MEMBERID id = -1;
        BSTR help = nullptr;
        BSTR names[16] = {};
        UINT count = 0;
        info->GetIDsOfNames(&name, 1, &id);
        info->GetDocumentation(id, nullptr, &help, nullptr, nullptr);
        if (vtable != nullptr) vtable->GetNames(id, names, 16, &count);
        std::wstring found =
            std::to_wstring(id) + L" " + Take(count > 0 ? names[0] : nullptr) + L"(";
        for (UINT k = 1; k < count; ++k) found += (k > 1 ? L" " : L"") + Take(names[k]);
        found += L"): " + Take(help);
        Check(found == expected, "member " + Narrow(found));
    }
}

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

    // Through the vtable: the page drawn through a 64-bit device context handle, stamped,
    // appended, replaced; run.sh reads the saved document.
    const Drawing page = Draw([&](HDC dc) {
        return object->DrawPageToDC(std::bit_cast<LONG_PTR>(dc), 1, 0, 0, 200, 300, 0, 0, 0, 0, 0);
    });
    Check(page.ShowsSquare(), "the page drawn into a DIB section", page.result);
    // The saved file keeps the attributes the replaced one had.
    const DWORD kept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE;
    SetFileAttributesW(doc.c_str(), kept);
    LONG pages = 0;
    const HRESULT hr = Stamp(object, letterhead);
    Check(hr == S_OK && object->ReplacePages(3, letterhead.Get(), 1, 1) == S_OK &&
              object->get_PageCount(&pages) == S_OK && pages == 3 && object->Save() == S_OK,
          "ImportContent gives a zero-based VT_UI4 array; placed, appended, replaced, saved", hr);
    Check((GetFileAttributesW(doc.c_str()) & kept) == kept,
          "the saved file keeps the hidden attribute of the file it replaced");

    // The element's position and page, for its OLE stream.
    element->SetPosition(0, 0, 200, 300);
    element->put_Page(1);

    // Both classes through OLE streams: the object by its document's path, the element by its
    // 30-byte record.
    ULARGE_INTEGER written{};
    BSTR held = nullptr;
    auto restored = Restored<IZPdfContentObject>(object.Get(), &written);
    Check(restored != nullptr && restored->GetPdfDocument(&held) == S_OK && Take(held) == doc,
          "the object restored from an OLE stream");
    auto copy = Restored<IZPdfContentElement>(element.Get(), &written);
    LONG place[5] = {};  // left, top, right, bottom, page
    Check(copy != nullptr && written.QuadPart == sizeof(CLSID) + 30 &&
              copy->get_Page(&place[4]) == S_OK && place[4] == 1 &&
              copy->GetPosition(&place[0], &place[1], &place[2], &place[3]) == S_OK &&
              place[2] == 200 && place[3] == 300,
          "the element restored from an OLE stream");

    // Failures, per interface of both classes: the result, ISupportErrorInfo claims the
    // interface, and the error information carries a description and the interface's GUID.
    const IID* object_iid = &IID_IZPdfContentObject;
    LONG n = 0;
    const std::tuple<const char*, const ComPtr<IUnknown>, const IID*, HRESULT,
                     std::function<HRESULT()>>
        failures[] = {
            {"SetPdfDocument without a path", object, object_iid, E_INVALIDARG,
             [&] { return object->SetPdfDocument(nullptr, VARIANT_FALSE, nullptr); }},
            {"GetPdfDocument without a place", object, object_iid, E_POINTER,
             [&] { return object->GetPdfDocument(nullptr); }},
            {"ImportContent without a place", object, object_iid, E_POINTER,
             [&] { return object->ImportContent(letterhead.Get(), nullptr); }},
            {"IZObject GetKind without a place", object, &IID_IZObject, E_POINTER,
             [&] { return zobject->GetKind(nullptr); }},
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
    const std::tuple<const char*, IDispatch*, const wchar_t*> engine_interfaces[] = {
        {"IZObject", zobject.Get(), L"PageCount"}, {"IZElement", zelement.Get(), L"Page"}};
    for (const auto& [what, dispatch, member] : engine_interfaces) {
        UINT count = 1;
        LPOLESTR name = const_cast<LPOLESTR>(member);
        DISPID id = 0;
        Check(dispatch->GetTypeInfoCount(&count) == S_OK && count == 0 &&
                  dispatch->GetIDsOfNames(IID_NULL, &name, 1, 0, &id) == DISP_E_UNKNOWNNAME,
              std::string(what) + "'s IDispatch does not describe the default interface");
    }

    // The identity by which content objects find each other is counted like any interface:
    // {5E0C2D8B-3F41-4B6A-9E2C-7A1D4F8B9C20}, the component's own.
    const IID identity = {
        0x5e0c2d8b, 0x3f41, 0x4b6a, {0x9e, 0x2c, 0x7a, 0x1d, 0x4f, 0x8b, 0x9c, 0x20}};
    const ULONG before = object->AddRef();
    void* self = nullptr;
    const HRESULT found = object->QueryInterface(identity, &self);
    Check(found == S_OK && object->Release() == before,
          "the implementation identity is a counted reference", found);
    if (SUCCEEDED(found)) object->Release();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return 2;
    CoInitialize(nullptr);
    Run(argv[1], argv[2]);
    TypeLibraryChecks();
    return Finish();
}
