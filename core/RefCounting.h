#pragma once
// COM-style reference counting through policies: a class declares its
// interfaces and leaves QueryInterface/AddRef/Release to CUnknownFoundation,
// which picks how to count, which identifiers to answer and what to do when
// the count falls.
#include <windows.h>
#include <unknwn.h>

#include <cstring>
#include <list>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

// The identifier declared on an interface, for CChainIFace.
template <class I>
struct InterfaceIID;

#define BROOM_DECLARE_IID(Interface, IidName)              \
  template <>                                              \
  struct InterfaceIID<Interface> {                         \
    static constexpr const IID& value = IidName;           \
  }

// ---- count policies ----

template <LONG N>
class CRefCount {
 protected:
  template <class Self>
  LONG CountUp(Self*) noexcept { return InterlockedIncrement(&m_refCount); }
  template <class Self>
  LONG CountDown(Self*) noexcept { return InterlockedDecrement(&m_refCount); }

  volatile LONG m_refCount = N;
};

class COneCount {
 protected:
  template <class Self>
  LONG CountUp(Self*) noexcept { return 1; }
  template <class Self>
  LONG CountDown(Self*) noexcept { return 1; }
};

// Counts on the counter the class keeps itself, reached as self->RefCountMember().
class CCustomRef {
 protected:
  template <class Self>
  LONG CountUp(Self* self) noexcept { return InterlockedIncrement(&self->RefCountMember()); }
  template <class Self>
  LONG CountDown(Self* self) noexcept { return InterlockedDecrement(&self->RefCountMember()); }
};

// ---- interface policies ----

class CIUnknownOnly : public IUnknown {
 public:
  virtual HRESULT FindInterface(REFIID riid, void** ppv) {
    if (IsEqualIID(riid, IID_IUnknown)) {
      AddRef();
      *ppv = static_cast<IUnknown*>(this);
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }

 protected:
  virtual ~CIUnknownOnly() = default;
};

class CNoIFace {
 public:
  HRESULT FindInterface(REFIID, void** ppv) {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
};

template <class I, const IID& iid, class Next>
class CChainIFaceWithIID : public Next {
 public:
  HRESULT FindInterface(REFIID riid, void** ppv) override {
    if (IsEqualIID(riid, IID_IUnknown)) return Next::FindInterface(riid, ppv);
    if (memcmp(&riid, &iid, sizeof(IID)) == 0) {
      I* typed = dynamic_cast<I*>(static_cast<IUnknown*>(this));
      if (typed) {
        this->AddRef();
        *ppv = typed;
        return S_OK;
      }
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    return Next::FindInterface(riid, ppv);
  }
};

template <class I, class Next>
class CChainIFace : public CChainIFaceWithIID<I, InterfaceIID<I>::value, Next> {};

// ---- deletion policies ----

class CDeleteThis {
 public:
  virtual ~CDeleteThis() = default;

 protected:
  void Released(LONG count) {
    if (count == 0) delete this;
  }
};

class CDontDelete {
 protected:
  void Released(LONG) noexcept {}
};

// Hands the new count to the class, which decides (OnCustomRelease).
class CCustomRelease {
 protected:
  template <class Self>
  void Released(Self* self, LONG count) {
    self->OnCustomRelease(count);
  }
};

template <class T, class CountPolicy, class InterfacePolicy, class DeletePolicy>
class CUnknownFoundation : public T, public CountPolicy, public InterfacePolicy, public DeletePolicy {
 public:
  using T::T;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    return InterfacePolicy::FindInterface(riid, ppv);
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    return static_cast<ULONG>(CountPolicy::CountUp(static_cast<T*>(this)));
  }
  ULONG STDMETHODCALLTYPE Release() override {
    LONG count = CountPolicy::CountDown(static_cast<T*>(this));
    if constexpr (std::is_same_v<DeletePolicy, CCustomRelease>)
      DeletePolicy::Released(static_cast<T*>(this), count);
    else
      DeletePolicy::Released(count);
    return static_cast<ULONG>(count);  // the object may be gone: only the local is used
  }
};

template <class T>
using IUnknownNoQIImp = CUnknownFoundation<T, CRefCount<0>, CIUnknownOnly, CDeleteThis>;
template <class T>
using CFakeBaseIUnknown = CUnknownFoundation<T, COneCount, CNoIFace, CDontDelete>;
template <class T, class I>
using CFakeSimpleIUnknownWithRef =
    CUnknownFoundation<T, CRefCount<1>, CChainIFace<I, CIUnknownOnly>, CDontDelete>;

// ---- holder ----

template <class T>
class CRefPtr {
 public:
  CRefPtr() noexcept = default;
  CRefPtr(std::nullptr_t) noexcept {}
  CRefPtr(T* p) noexcept : m_p(p) {  // NOLINT: takes a reference
    if (m_p) m_p->AddRef();
  }
  CRefPtr(const CRefPtr& other) noexcept : CRefPtr(other.m_p) {}
  CRefPtr(CRefPtr&& other) noexcept : m_p(other.Detach()) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  CRefPtr(const CRefPtr<U>& other) noexcept : CRefPtr(static_cast<T*>(other.Get())) {}
  ~CRefPtr() { Reset(); }

  CRefPtr& operator=(T* p) noexcept {
    if (p == m_p) return *this;  // already held: the count stays as it was
    if (p) p->AddRef();
    T* old = Exchange(p);
    if (old) old->Release();
    return *this;
  }
  CRefPtr& operator=(const CRefPtr& other) noexcept { return *this = other.m_p; }
  CRefPtr& operator=(CRefPtr&& other) noexcept {
    if (this != &other) {
      T* old = Exchange(other.Detach());
      if (old) old->Release();
    }
    return *this;
  }
  CRefPtr& operator=(std::nullptr_t) noexcept {
    Reset();
    return *this;
  }

  // Takes the pointer out and releases it exactly once, even when two
  // threads reset the same holder.
  void Reset() noexcept {
    T* old = Exchange(nullptr);
    if (old) old->Release();
  }
  // Adopts a pointer whose reference the caller already owns.
  void Attach(T* p) noexcept {
    T* old = Exchange(p);
    if (old) old->Release();
  }
  T* Detach() noexcept { return Exchange(nullptr); }

  T* Get() const noexcept { return m_p; }
  operator T*() const noexcept { return m_p; }
  T* operator->() const noexcept { return m_p; }
  T& operator*() const noexcept { return *m_p; }
  // For calls that fill a raw out-parameter with a new reference; drops what was held.
  T** Receive() noexcept {
    Reset();
    return &m_p;
  }

 private:
  T* Exchange(T* p) noexcept {
    return static_cast<T*>(InterlockedExchangePointer(reinterpret_cast<void* volatile*>(&m_p), p));
  }
  T* m_p = nullptr;
};

// ---- iterator ----

template <class T>
struct TIteratorIface : public IUnknown {
  virtual bool AtEnd() const = 0;
  virtual T* Current() = 0;
  virtual bool Next() = 0;
};

// Walks [current, end) of a list it does not own; valid while the list is unchanged.
template <class T, class It>
class TIteratorIface_impl : public TIteratorIface<T> {
 public:
  TIteratorIface_impl(It current, It end) : m_current(current), m_end(end) {}

  bool AtEnd() const override { return m_current == m_end; }
  // Owners hand out iterators from const operations, so a const_iterator is
  // accepted and its element given back as the interface's T*.
  T* Current() override { return const_cast<T*>(static_cast<const T*>(std::addressof(*m_current))); }
  bool Next() override {
    if (m_current == m_end) return false;
    ++m_current;
    return m_current != m_end;
  }

 protected:
  It m_current;
  It m_end;
};

// ---- read-only array ----

template <class T>
struct IConstTArray : public IUnknown {
  virtual const std::vector<T>& GetArray() const = 0;
};

template <class T>
class CConstTArray : public IConstTArray<T> {
 public:
  CConstTArray() = default;
  explicit CConstTArray(std::vector<T> items) : m_array(std::move(items)) {}

  const std::vector<T>& GetArray() const override { return m_array; }
  // Filled by the creator only, before the first reference leaves it.
  std::vector<T>& Items() { return m_array; }

 protected:
  virtual ~CConstTArray() = default;
  std::vector<T> m_array;
};

// Builds a counted object of an IUnknownNoQIImp-style class.
template <class Impl, class... Args>
CRefPtr<Impl> MakeRef(Args&&... args) {
  return CRefPtr<Impl>(new Impl(std::forward<Args>(args)...));
}
