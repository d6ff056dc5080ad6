// Reference counting. ORVA_RefCntObject carries the count. RefCountPtr<T> holds an object and keeps its count right,
// and holds a private copy of an object that is marked unshareable.
//
// Owner:   the holders together; the last one deletes the object, which must have been made with new.
// Threads: the count is a plain integer: holders of one object are made, copied and destroyed on one thread at a time.
#pragma once

#include <orva/orvaApi.h>

#include <cstdint>

// All functions are out of line, so that each is a symbol of the library.
class ORVA_API ORVA_RefCntObject {
public:
    virtual ~ORVA_RefCntObject();

    // Copies the count and the flag. Only for an object that no RefCountPtr holds.
    ORVA_RefCntObject& operator=(const ORVA_RefCntObject&);

    void AddReference();
    // Undoes one AddReference. Deletes the object when the count reaches 0.
    void RemoveReference();
    // 1 if there is more than one holder, else 0.
    int IsShared() const;
    // From now on every new holder gets a copy of its own. Cannot be undone.
    void MarkUnshareable();
    unsigned int IsShareable() const;

protected:
    // An object, or a copy, has no holders at first: the first RefCountPtr makes the count 1.
    ORVA_RefCntObject();
    ORVA_RefCntObject(const ORVA_RefCntObject&);

private:
    std::uint32_t fRefCount = 0;
    bool fShareable = true;
};

// Holds nothing, or a T that derives from ORVA_RefCntObject and has a copy constructor.
template <class T>
class RefCountPtr {
public:
    RefCountPtr() : RefCountPtr(nullptr) {}
    RefCountPtr(T* p) : fPtr(p) { Init(); }
    RefCountPtr(const RefCountPtr& other) : fPtr(other.fPtr) { Init(); }
    ~RefCountPtr() { release(); }

    // Releases the old object before it holds the new one. Assigning the pointer that it has changes nothing.
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

    // None of these checks for null.
    T* operator->() { return fPtr; }
    const T* operator->() const { return fPtr; }
    T& operator*() { return *fPtr; }
    const T& operator*() const { return *fPtr; }

    T* get() { return fPtr; }
    const T* get() const { return fPtr; }
    int IsValid() const { return fPtr != nullptr ? 1 : 0; }

    // Makes sure that only this holder has the object, by copying a shared one, and returns it. Must not be empty.
    T* Unshared() {
        if (fPtr->IsShared() == 0) return fPtr;
        T* shared = fPtr;
        fPtr = new T(*shared);
        shared->RemoveReference();
        Init();
        return fPtr;
    }

protected:
    // Adds this holder to the object in fPtr, or to a copy of an unshareable one. Empty if copying throws.
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
