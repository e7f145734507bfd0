// Drives ZPdfCntObj.dll as the hosts that are not a plain single-threaded client do: an outer
// object that aggregates each class, a multi-threaded apartment calling through the module's own
// proxies, an element drawing a content object that lives in another apartment, and allocation
// failures made behind the COM layer (a 64-bit test build's hook, ZPDF_FAIL_ALLOCATION).
//   com_hosts DOC.pdf LETTERHEAD.pdf
// DOC.pdf: two pages of 200 x 300 pt, the first with a black square at (50,100)-(100,150); it is
// changed by the aggregated job. Prints one line per check and a closing "N passed, N failed".
#include <windows.h>

#include <ole2.h>
#include <oleauto.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ZPdfCntObj_h.h"

namespace {

int g_passed = 0;
int g_failed = 0;

void Check(bool ok, const std::string& what, HRESULT hr = S_OK) {
    ok ? ++g_passed : ++g_failed;
    std::printf(ok ? "ok - %s\n" : "not ok - %s (0x%08lX)\n", what.c_str(),
                static_cast<unsigned long>(hr));
    std::fflush(stdout);
}

// An interface pointer, released when it goes.
template <class T>
struct Ref {
    T* p = nullptr;
    Ref() = default;
    Ref(const Ref&) = delete;
    Ref(Ref&& other) noexcept : p(std::exchange(other.p, nullptr)) {}
    ~Ref() { Reset(); }
    void Reset() {
        if (p != nullptr) std::exchange(p, nullptr)->Release();
    }
    T* operator->() const { return p; }
    operator T*() const { return p; }
    void** out() { return reinterpret_cast<void**>(&p); }
};

template <class T>
Ref<T> Query(IUnknown* from) {
    Ref<T> p;
    if (from != nullptr) from->QueryInterface(__uuidof(T), p.out());
    return p;
}

template <class T>
Ref<T> Create(REFCLSID clsid) {
    Ref<T> p;
    CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(T), p.out());
    return p;
}

struct Bstr {
    BSTR b;
    explicit Bstr(const wchar_t* s) : b(SysAllocString(s)) {}
    Bstr(const Bstr&) = delete;
    ~Bstr() { SysFreeString(b); }
    operator BSTR() const { return b; }
};

// The description of the thread's error information, empty when there is none.
std::wstring ErrorDescription() {
    IErrorInfo* error = nullptr;
    std::wstring text;
    if (GetErrorInfo(0, &error) == S_OK && error != nullptr) {
        BSTR description = nullptr;
        error->GetDescription(&description);
        if (description != nullptr) text = description;
        SysFreeString(description);
        error->Release();
    }
    return text;
}

std::string Hex(HRESULT hr) {
    char text[16];
    std::snprintf(text, sizeof text, "%08lX", static_cast<unsigned long>(hr));
    return text;
}

std::string Narrow(const std::wstring& text) {
    return std::string(text.begin(), text.end());
}

// The 200 x 300 pixels a drawing leaves in a white top-down 32-bit DIB section, and its result.
struct Drawing {
    HRESULT result = E_FAIL;
    std::vector<UINT32> pixels;
    // The two probes inside the square dark, the one left of it and the one below it not.
    bool ShowsSquare() const {
        if (pixels.size() != 200 * 300) return false;
        const auto dark = [&](int x, int y) { return ((pixels[y * 200 + x] >> 8) & 0xFF) < 64; };
        return dark(60, 160) && dark(95, 195) && !dark(40, 160) && !dark(60, 210);
    }
};

Drawing Draw(const std::function<HRESULT(HDC)>& draw) {
    Drawing out;
    HDC dc = CreateCompatibleDC(nullptr);
    BITMAPINFO info{{sizeof(BITMAPINFOHEADER), 200, -300, 1, 32, BI_RGB, 0, 0, 0, 0, 0}, {}};
    UINT32* bits = nullptr;
    HBITMAP bitmap =
        CreateDIBSection(dc, &info, DIB_RGB_COLORS, reinterpret_cast<void**>(&bits), nullptr, 0);
    HGDIOBJ previous = SelectObject(dc, bitmap);
    std::fill_n(bits, 200 * 300, 0x00FFFFFFu);
    out.result = draw(dc);
    GdiFlush();
    out.pixels.assign(bits, bits + 200 * 300);
    SelectObject(dc, previous);
    DeleteObject(bitmap);
    DeleteDC(dc);
    return out;
}

// The element's drawing of page 1 into the whole 200 x 300 bitmap.
Drawing DrawElement(IUnknown* element) {
    auto placed = Query<IZPdfContentElement>(element);
    auto drawn = Query<IZElement>(element);
    if (placed == nullptr || drawn == nullptr) return {};
    placed->SetPosition(0, 0, 200, 300);
    placed->put_Page(1);
    return Draw([&](HDC dc) {
        return drawn->DrawToDC(static_cast<LONG>(reinterpret_cast<LONG_PTR>(dc)), 0, 0, 0, 0, 0, 0);
    });
}

// Waits for `thread` while delivering the calls that reach this single-threaded apartment.
void PumpUntil(HANDLE thread) {
    while (MsgWaitForMultipleObjects(1, &thread, FALSE, INFINITE, QS_ALLINPUT) != WAIT_OBJECT_0) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
    }
}

// Whether `address` lies in the image of ZPdfCntObj.dll.
bool InOurModule(const void* address) {
    HMODULE module = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                  GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              static_cast<LPCWSTR>(address), &module) &&
           module == GetModuleHandleW(L"ZPdfCntObj.dll");
}

// --- Aggregation -------------------------------------------------------------------------------

// A host object that aggregates one of the classes: it answers IUnknown itself and hands every
// other request blindly to the inner object, as a host extending the class would.
class Outer final : public IUnknown {
  public:
    explicit Outer(REFCLSID clsid) {
        created_ = CoCreateInstance(clsid, this, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                    reinterpret_cast<void**>(&inner_));
    }
    HRESULT Created() const { return created_; }
    LONG Count() const { return refs_; }
    bool Gone() const { return gone_; }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        if (object == nullptr) return E_POINTER;
        if (iid == IID_IUnknown) {
            *object = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        if (inner_ == nullptr) {
            *object = nullptr;
            return E_NOINTERFACE;
        }
        return inner_->QueryInterface(iid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs_); }
    STDMETHODIMP_(ULONG) Release() override {
        const LONG left = --refs_;
        if (left == 0) {
            // The inner object goes with its outer object.
            if (inner_ != nullptr) std::exchange(inner_, nullptr)->Release();
            gone_ = true;
        }
        return static_cast<ULONG>(left);
    }

  private:
    std::atomic<LONG> refs_{1};
    IUnknown* inner_ = nullptr;
    HRESULT created_ = E_FAIL;
    bool gone_ = false;
};

void AggregationChecks(const std::wstring& doc, const std::wstring& letterhead_path) {
    // Only the inner unknown may be asked for when aggregating.
    const struct {
        const char* name;
        const CLSID& clsid;
        const IID& iid;
    } classes[] = {
        {"ZPdfContentObject", CLSID_ZPdfContentObject, IID_IZPdfContentObject},
        {"ZPdfContentElement", CLSID_ZPdfContentElement, IID_IZPdfContentElement},
    };
    for (const auto& c : classes) {
        Outer outer(c.clsid);
        void* object = reinterpret_cast<void*>(1);
        const HRESULT hr = CoCreateInstance(c.clsid, &outer, CLSCTX_INPROC_SERVER, c.iid, &object);
        Check(hr == CLASS_E_NOAGGREGATION && object == nullptr,
              std::string(c.name) + " with an outer object and its own IID: CLASS_E_NOAGGREGATION",
              hr);
        outer.Release();
    }

    {
        // Each interface of an aggregated object leads back to the outer object, and every
        // reference taken through one counts on the outer object.
        Outer object_outer(CLSID_ZPdfContentObject);
        Outer letterhead_outer(CLSID_ZPdfContentObject);
        Outer element_outer(CLSID_ZPdfContentElement);
        Check(SUCCEEDED(object_outer.Created()) && SUCCEEDED(element_outer.Created()) &&
                  SUCCEEDED(letterhead_outer.Created()),
              "both classes aggregated by an outer object");
        const struct {
            const char* name;
            Outer* outer;
            const IID* iids[5];
        } identities[] = {
            {"the aggregated object",
             &object_outer,
             {&IID_IZPdfContentObject, &IID_IDispatch, &IID_IZObject, &IID_IPersistStreamInit,
              &IID_ISupportErrorInfo}},
            {"the aggregated element",
             &element_outer,
             {&IID_IZPdfContentElement, &IID_IDispatch, &IID_IZElement, &IID_IPersistStreamInit,
              &IID_ISupportErrorInfo}},
        };
        for (const auto& identity : identities) {
            bool all = true;
            for (const IID* iid : identity.iids) {
                const LONG before = identity.outer->Count();
                IUnknown* part = nullptr;
                IUnknown* back = nullptr;
                all = all &&
                      SUCCEEDED(
                          identity.outer->QueryInterface(*iid, reinterpret_cast<void**>(&part))) &&
                      identity.outer->Count() == before + 1 &&
                      SUCCEEDED(
                          part->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&back))) &&
                      back == static_cast<IUnknown*>(identity.outer);
                if (back != nullptr) back->Release();
                if (part != nullptr) part->Release();
                all = all && identity.outer->Count() == before;
            }
            Check(
                all,
                std::string(identity.name) +
                    ": every interface answers the outer object as its identity and counts on it");
        }

        // The typical job through the outer objects: load, stamp, append, draw, save.
        auto object = Query<IZPdfContentObject>(&object_outer);
        auto letterhead = Query<IZPdfContentObject>(&letterhead_outer);
        auto element = Query<IZPdfContentElement>(&element_outer);
        LONG pages = 0;
        SAFEARRAY* ids = nullptr;
        ULONG form = 0;
        LONG first = 0;
        HRESULT hr = E_FAIL;
        if (object != nullptr && letterhead != nullptr && element != nullptr) {
            object->SetPdfDocument(Bstr(doc.c_str()), VARIANT_FALSE, Bstr(L""));
            letterhead->SetPdfDocument(Bstr(letterhead_path.c_str()), VARIANT_FALSE, Bstr(L""));
            hr = object->ImportContent(letterhead, &ids);
            if (ids != nullptr) {
                SafeArrayGetElement(ids, &first, &form);
                SafeArrayDestroy(ids);
            }
            if (SUCCEEDED(hr)) hr = object->PlaceContent(form, 2, 10, 10, 0.5f, 0.5f, VARIANT_TRUE);
            if (SUCCEEDED(hr)) hr = object->AppendPages(letterhead);
            if (SUCCEEDED(hr)) hr = object->get_PageCount(&pages);
            if (SUCCEEDED(hr)) hr = element->put_PdfObject(object);
        }
        const Drawing drawn = DrawElement(&element_outer);
        if (SUCCEEDED(hr)) hr = object->Save();
        Check(hr == S_OK && pages == 3 && drawn.result == S_OK && drawn.ShowsSquare(),
              "the job through the outer objects: stamped, appended, drawn by the element, saved",
              FAILED(hr) ? hr : drawn.result);
        // The element holds the object it shows until it is unbound.
        if (element != nullptr) element->put_PdfObject(nullptr);
        element.Reset();
        letterhead.Reset();
        object.Reset();
        const Outer* outers[] = {&object_outer, &letterhead_outer, &element_outer};
        bool one_left = true;
        for (const Outer* outer : outers) one_left = one_left && outer->Count() == 1;
        Check(one_left, "the interfaces released, each outer object holds its own reference only");
        object_outer.Release();
        letterhead_outer.Release();
        element_outer.Release();
        Check(object_outer.Gone() && letterhead_outer.Gone() && element_outer.Gone(),
              "the outer objects gone at zero, their inner objects with them");
    }
}

// --- Other apartments --------------------------------------------------------------------------

// A content object living on a thread of its own, in its own single-threaded apartment, until
// Stop(). Other apartments reach it through Marshalled().
class ObjectThread {
  public:
    explicit ObjectThread(std::wstring doc) : doc_(std::move(doc)) {
        ready_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        thread_ = CreateThread(nullptr, 0, &ObjectThread::Main, this, 0, &id_);
        WaitForSingleObject(ready_, INFINITE);
    }
    ~ObjectThread() {
        Stop();
        CloseHandle(ready_);
    }
    // A proxy of the object in the calling apartment (null when it could not be made).
    Ref<IZPdfContentObject> Marshalled() {
        Ref<IZPdfContentObject> proxy;
        if (stream_ != nullptr) {
            CoGetInterfaceAndReleaseStream(std::exchange(stream_, nullptr), IID_IZPdfContentObject,
                                           proxy.out());
        }
        return proxy;
    }
    void Stop() {
        if (thread_ == nullptr) return;
        PostThreadMessageW(id_, WM_QUIT, 0, 0);
        PumpUntil(thread_);
        CloseHandle(std::exchange(thread_, nullptr));
    }

  private:
    static DWORD WINAPI Main(void* self_pointer) {
        auto* self = static_cast<ObjectThread*>(self_pointer);
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        {
            auto object = Create<IZPdfContentObject>(CLSID_ZPdfContentObject);
            if (object != nullptr) {
                object->SetPdfDocument(Bstr(self->doc_.c_str()), VARIANT_FALSE, Bstr(L""));
                CoMarshalInterThreadInterfaceInStream(IID_IZPdfContentObject, object,
                                                      &self->stream_);
            }
            MSG message;
            PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // the thread's queue exists
            SetEvent(self->ready_);
            while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
        }
        CoUninitialize();
        return 0;
    }

    std::wstring doc_;
    HANDLE ready_ = nullptr;
    HANDLE thread_ = nullptr;
    DWORD id_ = 0;
    IStream* stream_ = nullptr;
};

// What the multi-threaded apartment receives and what it found.
struct MtaShared {
    IStream* object = nullptr;
    IStream* element = nullptr;
    std::vector<std::pair<bool, std::string>> results;
};

DWORD WINAPI MultiThreadedCalls(void* pointer) {
    auto* shared = static_cast<MtaShared*>(pointer);
    auto& results = shared->results;
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        Ref<IZPdfContentObject> object;
        Ref<IZPdfContentElement> element;
        const HRESULT got[] = {
            CoGetInterfaceAndReleaseStream(shared->object, IID_IZPdfContentObject, object.out()),
            CoGetInterfaceAndReleaseStream(shared->element, IID_IZPdfContentElement,
                                           element.out())};
        const bool both = object != nullptr && element != nullptr;
        results.emplace_back(
            both, "the MTA unmarshals both objects (0x" + Hex(got[0]) + ", 0x" + Hex(got[1]) + ")");
        results.emplace_back(both && InOurModule(*reinterpret_cast<void**>(object.p)) &&
                                 InOurModule(*reinterpret_cast<void**>(element.p)),
                             "the MTA holds proxies built from the module's own proxy tables");
        LONG pages = 0;
        double width = 0;
        double height = 0;
        LONG page = 0;
        // (GetPosition's places are inputs by the contract's definition: they do not travel
        // back across apartments, so the element's page stands for its state.)
        results.emplace_back(
            both && object->get_PageCount(&pages) == S_OK && pages == 2 &&
                object->GetPageSize(1, &width, &height) == S_OK && width == 200 && height == 300 &&
                element->put_Page(7) == S_OK && element->get_Page(&page) == S_OK && page == 7,
            "calls from the MTA: page count, page size ([out] doubles), the element's page");
        SetErrorInfo(0, nullptr);
        const HRESULT failed = both ? object->GetPageSize(9, &width, &height) : E_FAIL;
        // (Whether its description travels too is the COM run time's part; Wine's does not
        // carry error information across apartments.)
        results.emplace_back(failed == E_INVALIDARG,
                             "a failure's result reaches the MTA (0x" + Hex(failed) + ")");
    }
    CoUninitialize();
    return 0;
}

// The proxy/stub class registered for both interfaces is the module's own, and the pointers a
// multi-threaded apartment receives are proxies made by it: their tables live in the module.
void MultiThreadedApartmentChecks(const std::wstring& doc) {
    const CLSID ours = {
        0x956b0c6b, 0x649f, 0x4fe1, {0x85, 0x79, 0x4f, 0xdf, 0x0f, 0xdb, 0x46, 0x29}};
    for (const auto& [name, iid] :
         {std::pair<const char*, const IID*>{"IZPdfContentObject", &IID_IZPdfContentObject},
          {"IZPdfContentElement", &IID_IZPdfContentElement}}) {
        CLSID registered{};
        const HRESULT hr = CoGetPSClsid(*iid, &registered);
        Check(hr == S_OK && IsEqualCLSID(registered, ours),
              std::string(name) + " is marshalled by the module's proxy/stub class", hr);
    }

    auto object = Create<IZPdfContentObject>(CLSID_ZPdfContentObject);
    auto element = Create<IZPdfContentElement>(CLSID_ZPdfContentElement);
    if (object == nullptr || element == nullptr) {
        Check(false, "objects for the multi-threaded apartment");
        return;
    }
    object->SetPdfDocument(Bstr(doc.c_str()), VARIANT_FALSE, Bstr(L""));
    MtaShared shared;
    const HRESULT marshalled[] = {
        CoMarshalInterThreadInterfaceInStream(IID_IZPdfContentObject, object, &shared.object),
        CoMarshalInterThreadInterfaceInStream(IID_IZPdfContentElement, element, &shared.element)};
    Check(marshalled[0] == S_OK && marshalled[1] == S_OK, "both objects marshalled for the MTA",
          FAILED(marshalled[0]) ? marshalled[0] : marshalled[1]);

    HANDLE thread = CreateThread(nullptr, 0, &MultiThreadedCalls, &shared, 0, nullptr);
    PumpUntil(thread);
    CloseHandle(thread);
    for (const auto& [ok, what] : shared.results) Check(ok, what);
    Check(shared.results.size() == 4, "the MTA thread ran all its calls");
}

// An element here, its content object on another apartment's thread: the element draws through
// the proxy exactly what it draws of an object of its own apartment; the methods that read the
// source's document refuse the proxy and say why.
void OtherApartmentChecks(const std::wstring& doc, const std::wstring& letterhead_path) {
    ObjectThread remote(doc);
    auto proxy = remote.Marshalled();
    auto local = Create<IZPdfContentObject>(CLSID_ZPdfContentObject);
    auto element = Create<IZPdfContentElement>(CLSID_ZPdfContentElement);
    if (proxy == nullptr || local == nullptr || element == nullptr) {
        Check(false, "a content object in another apartment");
        return;
    }
    local->SetPdfDocument(Bstr(doc.c_str()), VARIANT_FALSE, Bstr(L""));

    element->put_PdfObject(local);
    const Drawing here = DrawElement(element);
    Ref<IZPdfContentObject> bound;
    const HRESULT put = element->put_PdfObject(proxy);
    element->get_PdfObject(&bound.p);
    const Drawing there = DrawElement(element);
    Check(put == S_OK && bound == proxy, "the element binds a proxy and hands it back", put);
    Check(here.result == S_OK && here.ShowsSquare() && there.result == S_OK &&
              there.pixels == here.pixels,
          "drawn through the other apartment, the pixels equal the one-apartment drawing",
          there.result);

    auto target = Create<IZPdfContentObject>(CLSID_ZPdfContentObject);
    target->SetPdfDocument(Bstr(letterhead_path.c_str()), VARIANT_FALSE, Bstr(L""));
    SAFEARRAY* ids = nullptr;
    const struct {
        const char* what;
        std::function<HRESULT()> call;
    } refusals[] = {
        {"ImportContent", [&] { return target->ImportContent(proxy, &ids); }},
        {"AppendPages", [&] { return target->AppendPages(proxy); }},
        {"ReplacePages", [&] { return target->ReplacePages(1, proxy, 1, 1); }},
    };
    for (const auto& r : refusals) {
        SetErrorInfo(0, nullptr);
        const HRESULT hr = r.call();
        const std::wstring why = ErrorDescription();
        Check(hr == E_INVALIDARG && why.find(L"another apartment") != std::wstring::npos,
              std::string(r.what) + " with a proxy from another apartment: E_INVALIDARG, \"" +
                  Narrow(why) + "\"",
              hr);
    }
    LONG pages = 0;
    Check(target->get_PageCount(&pages) == S_OK && pages == 1,
          "the refused calls left the document");
    element->put_PdfObject(nullptr);
    bound.Reset();
    proxy.Reset();
    remote.Stop();
}

// --- Allocation failures -----------------------------------------------------------------------

void AllocationFailureChecks(const std::wstring& doc, const std::wstring& letterhead_path) {
    auto object = Create<IZPdfContentObject>(CLSID_ZPdfContentObject);
    auto letterhead = Create<IZPdfContentObject>(CLSID_ZPdfContentObject);
    if (object == nullptr || letterhead == nullptr) {
        Check(false, "objects for the allocation failures");
        return;
    }
    object->SetPdfDocument(Bstr(doc.c_str()), VARIANT_FALSE, Bstr(L""));
    letterhead->SetPdfDocument(Bstr(letterhead_path.c_str()), VARIANT_FALSE, Bstr(L""));
    LONG before = 0;
    object->get_PageCount(&before);

    // The saved object, to be loaded again while its path cannot be read into memory.
    Ref<IStream> saved;
    CreateStreamOnHGlobal(nullptr, TRUE, &saved.p);
    Query<IPersistStreamInit>(object)->Save(saved, FALSE);
    auto loaded = Create<IPersistStreamInit>(CLSID_ZPdfContentObject);

    SAFEARRAY* ids = nullptr;
    const struct {
        const char* what;
        std::function<HRESULT()> call;
        std::function<bool()> after;  // what is still true once it failed
    } cases[] = {
        // The array of the result cannot be made: the method answers, the document keeps its
        // pages and the caller gets no array.
        {"ImportContent", [&] { return object->ImportContent(letterhead, &ids); },
         [&] {
             LONG pages = 0;
             return ids == nullptr && object->get_PageCount(&pages) == S_OK && pages == before;
         }},
        {"IPersistStreamInit::Load",
         [&] {
             saved->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
             return loaded->Load(saved);
         },
         [] { return true; }},
    };
    for (const auto& c : cases) {
        SetEnvironmentVariableW(L"ZPDF_FAIL_ALLOCATION", L"1");
        SetErrorInfo(0, nullptr);
        const HRESULT hr = c.call();
        const std::wstring why = ErrorDescription();
        wchar_t left[8] = {};
        const bool consumed = GetEnvironmentVariableW(L"ZPDF_FAIL_ALLOCATION", left, 8) == 0;
        SetEnvironmentVariableW(L"ZPDF_FAIL_ALLOCATION", nullptr);
        Check(hr == E_OUTOFMEMORY && !why.empty() && consumed && c.after(),
              std::string(c.what) + " out of memory: E_OUTOFMEMORY, \"" + Narrow(why) +
                  "\", the process goes on",
              hr);
        // Once memory is there again, the same call succeeds.
        const HRESULT again = c.call();
        Check(again == S_OK, std::string(c.what) + " succeeds again afterwards", again);
        if (ids != nullptr) SafeArrayDestroy(std::exchange(ids, nullptr));
    }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: com_hosts DOC.pdf LETTERHEAD.pdf\n");
        return 2;
    }
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    AllocationFailureChecks(argv[1], argv[2]);
    MultiThreadedApartmentChecks(argv[1]);
    OtherApartmentChecks(argv[1], argv[2]);
    AggregationChecks(argv[1], argv[2]);
    // Everything released, proxies and stubs included: the module may unload, but not while a
    // host holds the module's proxy/stub factory, which DllGetClassObject hands out first.
    HMODULE module = GetModuleHandleW(L"ZPdfCntObj.dll");
    using CanUnloadNow = HRESULT(STDAPICALLTYPE*)();
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    const auto can_unload =
        module == nullptr ? nullptr
                          : reinterpret_cast<CanUnloadNow>(
                                reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));
    const auto get_class = module == nullptr
                               ? nullptr
                               : reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(
                                     GetProcAddress(module, "DllGetClassObject")));
    Check(can_unload != nullptr && can_unload() == S_OK,
          "the module can unload once all is released");
    if (get_class != nullptr && can_unload != nullptr) {
        const CLSID ours = {
            0x956b0c6b, 0x649f, 0x4fe1, {0x85, 0x79, 0x4f, 0xdf, 0x0f, 0xdb, 0x46, 0x29}};
        Ref<IPSFactoryBuffer> factory;
        const HRESULT hr = get_class(ours, IID_IPSFactoryBuffer, factory.out());
        const HRESULT held = can_unload();
        factory.Reset();
        Check(
            hr == S_OK && held == S_FALSE && can_unload() == S_OK,
            "DllGetClassObject hands out the proxy/stub factory; the module stays while it is held",
            hr);
    }
    CoUninitialize();
    std::printf("%d passed, %d failed\n", g_passed, g_failed);
    return g_failed == 0 ? 0 : 1;
}
