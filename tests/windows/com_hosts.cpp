// Drives ZPdfCntObj.dll as the hosts that are not a plain single-threaded client do: an outer
// object that aggregates each class, other apartments calling through the module's own proxies,
// and allocation failures made behind the COM layer (a 64-bit test build's hook,
// ZPDF_FAIL_ALLOCATION).
//   com_hosts DOC.pdf LETTERHEAD.pdf
// DOC.pdf: two pages of 200 x 300 pt, the first with a black square at (50,100)-(100,150).
// Prints one line per check and a closing "N passed, N failed".
#include <atomic>
#include <tuple>

#include "com_test.h"

namespace {

// The element's drawing of page 1 into the whole 200 x 300 bitmap.
Drawing DrawElement(IUnknown* element) {
    auto placed = Query<IZPdfContentElement>(element);
    auto drawn = Query<IZElement>(element);
    placed->SetPosition(0, 0, 200, 300);
    placed->put_Page(1);
    return Draw([&](HDC dc) {
        return drawn->DrawToDC(static_cast<LONG>(reinterpret_cast<LONG_PTR>(dc)), 0, 0, 0, 0, 0, 0);
    });
}

// --- Aggregation -------------------------------------------------------------------------------

// A host object that aggregates one of the classes: it answers IUnknown itself and hands every
// other request blindly to the inner object, as a host extending the class would.
class Outer final : public IUnknown {
  public:
    explicit Outer(REFCLSID clsid) : clsid(clsid) {
        CoCreateInstance(clsid, this, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&inner_));
    }
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        if (iid != IID_IUnknown)
            return inner_ ? inner_->QueryInterface(iid, object) : E_NOINTERFACE;
        *object = static_cast<IUnknown*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
    STDMETHODIMP_(ULONG) Release() override {
        const LONG left = --refs;
        // The inner object goes with its outer object.
        if (left == 0 && inner_ != nullptr) inner_->Release();
        return static_cast<ULONG>(left);
    }

    const CLSID& clsid;
    std::atomic<LONG> refs{1};

  private:
    IUnknown* inner_ = nullptr;
};

void AggregationChecks(const std::wstring& doc, const std::wstring& letterhead_path) {
    Outer object_outer(CLSID_ZPdfContentObject);
    Outer letterhead_outer(CLSID_ZPdfContentObject);
    Outer element_outer(CLSID_ZPdfContentElement);
    // Per class: its outer object, its own interface, the engine's interface.
    const std::tuple<const char*, Outer*, const IID*, const IID*> classes[] = {
        {"ZPdfContentObject", &object_outer, &IID_IZPdfContentObject, &IID_IZObject},
        {"ZPdfContentElement", &element_outer, &IID_IZPdfContentElement, &IID_IZElement},
    };
    for (const auto& [name, outer, own, engine] : classes) {
        // Only the inner unknown may be asked for when aggregating.
        void* object = reinterpret_cast<void*>(1);
        const HRESULT hr =
            CoCreateInstance(outer->clsid, outer, CLSCTX_INPROC_SERVER, *own, &object);
        // Each interface leads back to the outer object, and every reference taken through one
        // counts on the outer object.
        const LONG start = outer->refs;
        bool all = hr == CLASS_E_NOAGGREGATION && object == nullptr;
        for (const IID* iid :
             {own, &IID_IDispatch, engine, &IID_IPersistStreamInit, &IID_ISupportErrorInfo}) {
            ComPtr<IUnknown> part;
            ComPtr<IUnknown> back;
            all = all && outer->refs == start && SUCCEEDED(outer->QueryInterface(*iid, &part)) &&
                  outer->refs == start + 1 &&
                  SUCCEEDED(part->QueryInterface(IID_PPV_ARGS(&back))) && back.Get() == outer;
        }
        all = all && outer->refs == start;
        Check(all,
              std::string(name) + " aggregated (its own IID alone: CLASS_E_NOAGGREGATION): " +
                  "every interface answers the outer object as its identity and counts on it",
              hr);
    }

    {
        // The typical job through the outer objects: load, stamp, append. The module finds its
        // own object behind the outer one of the source.
        auto object = Query<IZPdfContentObject>(&object_outer);
        auto letterhead = Query<IZPdfContentObject>(&letterhead_outer);
        object->SetPdfDocument(Bstr(doc.c_str()), VARIANT_FALSE, Bstr(L""));
        letterhead->SetPdfDocument(Bstr(letterhead_path.c_str()), VARIANT_FALSE, Bstr(L""));
        LONG pages = 0;
        HRESULT hr = Stamp(object, letterhead);
        if (SUCCEEDED(hr)) hr = object->get_PageCount(&pages);
        Check(hr == S_OK && pages == 3, "the job through the outer objects: stamped, appended", hr);
    }
    // Once the interfaces are released, each outer object holds its own reference only, and the
    // inner objects go with the outer ones (the module's unload check sees that).
    bool one_left = true;
    for (Outer* outer : {&object_outer, &letterhead_outer, &element_outer}) {
        one_left = outer->Release() == 0 && one_left;  // every one released
    }
    Check(one_left, "the interfaces released, each outer object holds its own reference only");
}

// --- Other apartments --------------------------------------------------------------------------

// Makes `calls` on a thread of its own, in a new apartment of `model`, while this single-threaded
// apartment delivers the calls that reach it.
void InApartment(COINIT model, std::function<void()> calls) {
    std::pair job{model, std::move(calls)};
    const auto run = [](void* job_pointer) WINAPI -> DWORD {
        const auto& [apartment, work] = *static_cast<decltype(job)*>(job_pointer);
        CoInitializeEx(nullptr, apartment);
        work();
        CoUninitialize();
        return 0;
    };
    HANDLE thread = CreateThread(nullptr, 0, run, &job, 0, nullptr);
    while (MsgWaitForMultipleObjects(1, &thread, FALSE, INFINITE, QS_ALLINPUT) != WAIT_OBJECT_0) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
    }
    CloseHandle(thread);
}

// A multi-threaded apartment calls an object and an element of this apartment through proxies
// that the module's own proxy/stub code makes. An element of another single-threaded apartment
// draws this apartment's object through a proxy exactly as an object of its own; a method that
// reads the source's document refuses the proxy and says why.
void ApartmentChecks(const std::wstring& doc, const std::wstring& letterhead_path) {
    auto object = Open(doc);
    auto element = Create<IZPdfContentElement>(L"Ostrand.ZPdfContentElement");
    IStream* object_stream = nullptr;
    IStream* element_stream = nullptr;
    CoMarshalInterThreadInterfaceInStream(IID_IZPdfContentObject, object.Get(), &object_stream);
    CoMarshalInterThreadInterfaceInStream(IID_IZPdfContentElement, element.Get(), &element_stream);
    InApartment(COINIT_MULTITHREADED, [&] {
        ComPtr<IZPdfContentObject> object_proxy;
        ComPtr<IZPdfContentElement> element_proxy;
        CoGetInterfaceAndReleaseStream(object_stream, IID_PPV_ARGS(&object_proxy));
        CoGetInterfaceAndReleaseStream(element_stream, IID_PPV_ARGS(&element_proxy));
        LONG numbers[2] = {};  // the page count, the element's page
        double size[2] = {};
        // (GetPosition's places are inputs by the contract's definition: they do not travel
        // back across apartments, so the element's page stands for its state. Whether a failure's
        // description travels too is the COM run time's part; Wine's does not carry it.)
        Check(object_proxy != nullptr && element_proxy != nullptr &&
                  object_proxy->get_PageCount(&numbers[0]) == S_OK && numbers[0] == 2 &&
                  object_proxy->GetPageSize(1, &size[0], &size[1]) == S_OK && size[0] == 200 &&
                  size[1] == 300 && element_proxy->put_Page(7) == S_OK &&
                  element_proxy->get_Page(&numbers[1]) == S_OK && numbers[1] == 7,
              "calls from the MTA: page count, page size ([out] doubles), the element's page");
    });

    CoMarshalInterThreadInterfaceInStream(IID_IZPdfContentObject, object.Get(), &object_stream);
    InApartment(COINIT_APARTMENTTHREADED, [&] {
        ComPtr<IZPdfContentObject> proxy;
        CoGetInterfaceAndReleaseStream(object_stream, IID_PPV_ARGS(&proxy));
        auto local = Open(doc);
        auto target = Open(letterhead_path);
        auto viewer = Create<IZPdfContentElement>(L"Ostrand.ZPdfContentElement");
        viewer->put_PdfObject(local.Get());
        const Drawing here = DrawElement(viewer.Get());
        ComPtr<IZPdfContentObject> bound;
        const HRESULT put = viewer->put_PdfObject(proxy.Get());
        viewer->get_PdfObject(&bound);
        const Drawing there = DrawElement(viewer.Get());
        Check(put == S_OK && bound == proxy && here.ShowsSquare() && there.result == S_OK &&
                  there.pixels == here.pixels,
              "the element binds a proxy, hands it back, draws the same pixels through it",
              FAILED(put) ? put : there.result);
        SAFEARRAY* ids = nullptr;
        LONG pages = 0;
        SetErrorInfo(0, nullptr);
        const HRESULT hr = target->ImportContent(proxy.Get(), &ids);
        const std::string why = ErrorDescription();
        Check(hr == E_INVALIDARG && why.find("another apartment") != std::string::npos &&
                  ids == nullptr && target->get_PageCount(&pages) == S_OK && pages == 1,
              "a source from another apartment refused: E_INVALIDARG, \"" + why +
                  "\", the document left as it was",
              hr);
        viewer->put_PdfObject(nullptr);
    });
}

// --- Allocation failures -----------------------------------------------------------------------

// A marked allocation behind the COM layer fails: the method answers E_OUTOFMEMORY with a
// description, the process goes on, the document keeps its pages, the caller gets no array; once
// memory is there again, the same call succeeds.
void AllocationFailureChecks(const std::wstring& doc, const std::wstring& letterhead_path) {
    auto object = Open(doc);
    auto letterhead = Open(letterhead_path);
    SAFEARRAY* ids = nullptr;
    SetEnvironmentVariableW(L"ZPDF_FAIL_ALLOCATION", L"1");
    SetErrorInfo(0, nullptr);
    const HRESULT hr = object->ImportContent(letterhead.Get(), &ids);
    const std::string why = ErrorDescription();
    SetEnvironmentVariableW(L"ZPDF_FAIL_ALLOCATION", nullptr);
    LONG pages = 0;
    const bool kept = ids == nullptr && object->get_PageCount(&pages) == S_OK && pages == 2;
    const HRESULT again = object->ImportContent(letterhead.Get(), &ids);
    Check(hr == E_OUTOFMEMORY && !why.empty() && kept && again == S_OK,
          "ImportContent out of memory: E_OUTOFMEMORY, \"" + why +
              "\", the process goes on; the call succeeds again afterwards",
          FAILED(again) ? again : hr);
    SafeArrayDestroy(ids);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return 2;
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    AllocationFailureChecks(argv[1], argv[2]);
    ApartmentChecks(argv[1], argv[2]);
    AggregationChecks(argv[1], argv[2]);
    // Everything released, proxies and stubs included: the module may unload, but not while a
    // host holds the module's proxy/stub factory, which DllGetClassObject hands out first. The
    // proxy/stub class takes the first interface's IID as its CLSID.
    ComPtr<IPSFactoryBuffer> factory;
    const HRESULT hr = CoGetClassObject(IID_IZPdfContentObject, CLSCTX_INPROC_SERVER, nullptr,
                                        IID_IPSFactoryBuffer, &factory);
    const HRESULT held = Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow")();
    factory.Reset();
    Check(hr == S_OK && held == S_FALSE,
          "DllGetClassObject hands out the proxy/stub factory; the module stays while it is held",
          hr);
    return Finish();
}
