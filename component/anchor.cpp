#include "component/anchor.h"

namespace vx {

HRESULT create_anchor(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<anchor>(entry, iid, object);
}

}  // namespace vx
