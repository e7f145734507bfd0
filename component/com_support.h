// What every COM class of the component shares: the module's counts, the type library, error
// information, the exception barrier, the conversions between automation types and the core's
// types, and IUnknown, IDispatch, ISupportErrorInfo and IPersistStreamInit written once.
#pragma once

#include <ocidl.h>
#include <oleauto.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <source_location>
#include <string>
#include <string_view>

#include "ZPdfCntObj_h.h"
#include "component/istream_byte_stream.h"
#include "platform/hresult.h"
#include "platform/text.h"

namespace zpdf::com {

// Objects alive and locks (explicit ones and class factories handed out): the module may unload
// only when both are zero.
extern std::atomic<long> g_objects;
extern std::atomic<long> g_locks;

// Type information of `iid` from the type library in the module's resources (loaded once).
HRESULT GetTypeInfoOf(REFIID iid, ITypeInfo** info);

// Sets the thread's error information for a failure of `iid` to `text`, or to the result's usual
// wording when `text` is empty, and returns `result`. Successes clear it.
HRESULT Report(REFIID iid, HRESULT result, std::string_view text) noexcept;

// An exception stopped at the barrier: logged under the PDF category, reported, and `result`.
HRESULT Escaped(REFIID iid, HRESULT result, const char* what,
                const std::source_location& where) noexcept;

// Runs `body`, which returns an HRESULT, so that no exception leaves a COM method or export: out
// of memory becomes E_OUTOFMEMORY and anything else E_UNEXPECTED.
template <class Body>
HRESULT Guard(REFIID iid, Body&& body,
              const std::source_location& where = std::source_location::current()) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return Escaped(iid, E_OUTOFMEMORY, "Out of memory", where);
    } catch (const std::exception& e) {
        return Escaped(iid, E_UNEXPECTED, e.what(), where);
    } catch (...) {
        return Escaped(iid, E_UNEXPECTED, "Unknown exception", where);
    }
}

// How a method's body ends: its result and, for a failure the component finds itself, its words.
// A bare result is the core's, described by the class's ErrorText.
struct Outcome {
    Outcome(HRESULT r, std::string why = {}) : result(r), text(std::move(why)) {}
    HRESULT result;
    std::string text;
};

inline constexpr char kNoPlace[] = "No place for the result was given";

// A LONG out-parameter as the core's 32-bit integer: the same size, passed straight through.
static_assert(sizeof(LONG) == sizeof(std::int32_t));
inline std::int32_t* Int32(LONG* value) {
    return reinterpret_cast<std::int32_t*>(value);
}

// The kind code by which the print engine tells our objects and elements from its own.
inline Outcome GetKindCode(LONG* kind) {
    if (kind == nullptr) return {E_POINTER, kNoPlace};
    *kind = 305;
    return S_OK;
}

// A BSTR as the core's text: a null BSTR is absent, an empty one is the empty string.
OptionalText FromBstr(BSTR text);
// A new BSTR for the core's text (null for absent); std::bad_alloc when it cannot be made.
BSTR ToBstr(const OptionalText& text);

// IDispatch of a dual interface, served from its description in the type library.
template <class Interface>
class Dispatch : public Interface {
  public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override {
        if (count == nullptr) return E_POINTER;
        *count = 1;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT index, LCID, ITypeInfo** info) override {
        if (info == nullptr) return E_POINTER;
        *info = nullptr;
        if (index != 0) return DISP_E_BADINDEX;
        return Guard(__uuidof(Interface), [&] { return GetTypeInfoOf(__uuidof(Interface), info); });
    }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        return WithTypeInfo(
            [&](ITypeInfo* info) { return DispGetIDsOfNames(info, names, count, ids); });
    }
    STDMETHODIMP Invoke(DISPID member, REFIID iid, LCID, WORD flags, DISPPARAMS* params,
                        VARIANT* result, EXCEPINFO* exception, UINT* arg_error) override {
        if (iid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
        return WithTypeInfo([&](ITypeInfo* info) {
            return DispInvoke(static_cast<Interface*>(this), info, member, flags, params, result,
                              exception, arg_error);
        });
    }

  private:
    template <class Use>
    HRESULT WithTypeInfo(Use&& use) {
        return Guard(__uuidof(Interface), [&] {
            ITypeInfo* info = nullptr;
            HRESULT hr = GetTypeInfoOf(__uuidof(Interface), &info);
            if (SUCCEEDED(hr)) {
                hr = use(info);
                info->Release();
            }
            return hr;
        });
    }
};

// IDispatch of an interface described only in the print engine's own library: without type
// information it reaches no member, as IDispatch without a description does.
template <class Interface>
class UndescribedDispatch : public Interface {
  public:
    STDMETHODIMP GetTypeInfoCount(UINT* count) override {
        if (count == nullptr) return E_POINTER;
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
        if (info != nullptr) *info = nullptr;
        return DISP_E_BADINDEX;
    }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT count, LCID, DISPID* ids) override {
        if (ids != nullptr) std::fill_n(ids, count, DISPID_UNKNOWN);
        return DISP_E_UNKNOWNNAME;
    }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                        UINT*) override {
        return DISP_E_MEMBERNOTFOUND;
    }
};

// IUnknown and ISupportErrorInfo of the COM class `Derived`. `Default` is its default dual
// interface, also reached as IDispatch; Derived::kInterfaces lists the further identifiers
// QueryInterface answers, each with the pointer that answers it. Every pointer handed out is
// counted, and every interface answered reports its failures as error information.
//
// An object can be aggregated: made with an outer object's controlling unknown, it hands the
// outer object an inner unknown that alone counts and answers for it, and every interface it
// exposes sends QueryInterface, AddRef and Release to the outer object, which owns its lifetime.
// Made alone, the inner unknown is its own controlling unknown and its identity.
template <class Derived, class Default, class... Others>
class ComObject : public Dispatch<Default>, public Others..., public ISupportErrorInfo {
  public:
    struct Entry {
        const IID* iid;
        void* (*pointer)(Derived*);
    };

    // A new object, as the class factory makes it: `outer` is the controlling unknown of an
    // aggregate (or null), which may only ask for the inner unknown.
    static HRESULT Create(IUnknown* outer, REFIID iid, void** object) {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (outer != nullptr && iid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
        Derived* created = new Derived();
        if (outer != nullptr) created->controlling_ = outer;
        const HRESULT hr = created->inner_.QueryInterface(iid, object);
        created->inner_.Release();
        return hr;
    }

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        return controlling_->QueryInterface(iid, object);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return controlling_->AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return controlling_->Release(); }
    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID iid) override {
        return iid == IID_IUnknown || Find(iid) != nullptr ? S_OK : S_FALSE;
    }

    // One method of `Interface`: runs `body` behind the exception barrier and reports its outcome,
    // a failure of the core in the words of Derived::ErrorText.
    template <class Interface = Default, class Body>
    HRESULT Call(Body&& body,
                 const std::source_location& where = std::source_location::current()) noexcept {
        return Guard(
            __uuidof(Interface),
            [&] {
                const Outcome outcome = body();
                const bool own_words = SUCCEEDED(outcome.result) || !outcome.text.empty();
                return Report(__uuidof(Interface), outcome.result,
                              own_words ? outcome.text
                                        : static_cast<Derived*>(this)->ErrorText(outcome.result));
            },
            where);
    }

  protected:
    ComObject() { ++g_objects; }
    ~ComObject() { --g_objects; }

    template <class Interface>
    static void* As(Derived* self) {
        return static_cast<Interface*>(self);
    }

  private:
    // The object's own IUnknown: the only one that counts references and answers for the
    // object, whichever unknown controls it.
    class InnerUnknown final : public IUnknown {
      public:
        explicit InnerUnknown(ComObject* owner) : owner_(owner) {}
        STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
            if (object == nullptr) return E_POINTER;
            if (iid == IID_IUnknown) {
                *object = static_cast<IUnknown*>(this);
                AddRef();
                return S_OK;
            }
            *object = owner_->Find(iid);
            if (*object == nullptr) return E_NOINTERFACE;
            // Counted through the interface handed out, so that its Release balances it.
            static_cast<IUnknown*>(*object)->AddRef();
            return S_OK;
        }
        STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
        STDMETHODIMP_(ULONG) Release() override {
            const ULONG left = --refs_;
            if (left == 0) delete static_cast<Derived*>(owner_);
            return left;
        }

      private:
        ComObject* owner_;
        std::atomic<ULONG> refs_{1};
    };

    void* Find(REFIID iid) {
        Derived* self = static_cast<Derived*>(this);
        if (iid == IID_IDispatch || iid == __uuidof(Default)) return As<Default>(self);
        if (iid == IID_ISupportErrorInfo) return As<ISupportErrorInfo>(self);
        for (const Entry& entry : Derived::kInterfaces) {
            if (iid == *entry.iid) return entry.pointer(self);
        }
        return nullptr;
    }

    InnerUnknown inner_{this};
    IUnknown* controlling_ = &inner_;
};

// IPersistStreamInit of `Derived` (class `Coclass`) over its core's persistence members.
template <class Derived, class Coclass>
class StreamPersistence : public IPersistStreamInit {
  public:
    STDMETHODIMP GetClassID(CLSID* clsid) override {
        return Persist([&]() -> Outcome {
            if (clsid == nullptr) return {E_POINTER, kNoPlace};
            *clsid = __uuidof(Coclass);
            return S_OK;
        });
    }
    STDMETHODIMP IsDirty() override {
        return Persist([&] { return Core().IsDirty(); });
    }
    STDMETHODIMP Load(IStream* stream) override {
        return Persist([&]() -> Outcome {
            if (stream == nullptr) return {E_POINTER, kNoStream};
            IStreamByteStream bytes(stream);
            return Core().Load(bytes);
        });
    }
    STDMETHODIMP Save(IStream* stream, BOOL clear_dirty) override {
        return Persist([&]() -> Outcome {
            if (stream == nullptr) return {E_POINTER, kNoStream};
            IStreamByteStream bytes(stream);
            return Core().Save(bytes, clear_dirty != FALSE);
        });
    }
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override {
        return Persist(
            [&] { return Core().GetSizeMax(size != nullptr ? &size->QuadPart : nullptr); });
    }
    STDMETHODIMP InitNew() override {
        return Persist([&] { return Core().InitNew(); });
    }

  private:
    static constexpr char kNoStream[] = "No stream was given";
    auto& Core() { return static_cast<Derived&>(*this).Core(); }
    template <class Body>
    HRESULT Persist(Body&& body,
                    const std::source_location& where = std::source_location::current()) {
        return static_cast<Derived&>(*this).template Call<IPersistStreamInit>(
            std::forward<Body>(body), where);
    }
};

}  // namespace zpdf::com
