// Reference counting. ORVA_RefCntObject carries the count; RefCountPtr<T> holds an object and keeps the count right,
// and makes a private copy of an object that is marked unshareable.
//
// Owner:   the holders together; the last one to let go deletes the object. It must have been made with new.
// Threads: counts are plain integers. Holders of one object are made, copied and ended on one thread at a time.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>

// All of it out of line, so that every operation is a symbol of the library.
class ORVA_API ORVA_RefCntObject {
public:
    virtual ~ORVA_RefCntObject();

    // Copies the count and the flag. Only for an object that no RefCountPtr holds.
    ORVA_RefCntObject& operator=(const ORVA_RefCntObject&);

    void AddReference();
    // Deletes the object when the count reaches 0: it must not be touched afterwards. Each call answers one
    // AddReference.
    void RemoveReference();
    // 1 with more than one holder, else 0.
    int IsShared() const;
    // From now on every new holder gets a copy of its own. There is no way back.
    void MarkUnshareable();
    unsigned int IsShareable() const;

protected:
    // No holder yet: the first RefCountPtr makes the count 1. A copy is a new object with no holders.
    ORVA_RefCntObject();
    ORVA_RefCntObject(const ORVA_RefCntObject&);

private:
    std::uint32_t fRefCount = 0;
    bool fShareable = true;
};

// Holds a T, which derives from ORVA_RefCntObject and has a copy constructor, or nothing.
template <class T>
class RefCountPtr {
public:
    RefCountPtr() : RefCountPtr(nullptr) {}
    RefCountPtr(T* p) : fPtr(p) { Init(); }
    RefCountPtr(const RefCountPtr& other) : fPtr(other.fPtr) { Init(); }
    ~RefCountPtr() { release(); }

    // Lets go of the old object first, then joins the new one. The pointer it already has changes nothing.
    RefCountPtr& operator=(T* p) {
        if (fPtr == p) return *this;
        release();
        fPtr = p;
        Init();
        return *this;
    }
    RefCountPtr& operator=(const RefCountPtr& other) { return *this = other.fPtr; }

    int operator==(const RefCountPtr& other) const { return fPtr == other.fPtr ? 1 : 0; }
    int operator==(const T* p) const { return fPtr == p ? 1 : 0; }
    int operator!=(const RefCountPtr& other) const { return fPtr != other.fPtr ? 1 : 0; }
    int operator!=(const T* p) const { return fPtr != p ? 1 : 0; }

    // No test for null.
    T* operator->() { return fPtr; }
    const T* operator->() const { return fPtr; }
    T& operator*() { return *fPtr; }
    const T& operator*() const { return *fPtr; }

    T* get() { return fPtr; }
    const T* get() const { return fPtr; }
    int IsValid() const { return fPtr != nullptr ? 1 : 0; }

    // The object, held by this holder alone: a shared one is copied first. Must not be empty.
    T* Unshared() {
        if (fPtr->IsShared() == 0) return fPtr;
        T* shared = fPtr;
        fPtr = new T(*shared);
        shared->RemoveReference();
        Init();
        return fPtr;
    }

protected:
    // The common step once fPtr holds its new value. A copy that fails leaves the holder empty.
    void Init() {
        T* p = fPtr;
        fPtr = nullptr;
        if (p == nullptr) return;
        if (p->IsShareable() == 0) p = new T(*p);
        p->AddReference();
        fPtr = p;
    }

private:
    void release() {
        T* old = fPtr;
        fPtr = nullptr;
        if (old != nullptr) old->RemoveReference();
    }

    T* fPtr;
};
