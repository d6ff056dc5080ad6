#include <orva/refCntObject.h>

ORVA_RefCntObject::ORVA_RefCntObject() = default;
ORVA_RefCntObject::ORVA_RefCntObject(const ORVA_RefCntObject&) {}  // NOLINT: a copy has no holders
ORVA_RefCntObject::~ORVA_RefCntObject() = default;
ORVA_RefCntObject& ORVA_RefCntObject::operator=(const ORVA_RefCntObject&) = default;

void ORVA_RefCntObject::AddReference() {
    ++fRefCount;
}

void ORVA_RefCntObject::RemoveReference() {
    if (--fRefCount == 0) delete this;
}

int ORVA_RefCntObject::IsShared() const {
    return fRefCount > 1 ? 1 : 0;
}

void ORVA_RefCntObject::MarkUnshareable() {
    fShareable = false;
}

unsigned int ORVA_RefCntObject::IsShareable() const {
    return fShareable ? 1U : 0U;
}
