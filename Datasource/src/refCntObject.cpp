#include <orva/refCntObject.h>

ORVA_RefCntObject::~ORVA_RefCntObject() = default;

void ORVA_RefCntObject::RemoveReference() {
    if (--fRefCount == 0) delete this;
}
