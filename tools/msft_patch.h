// Corrections applied to a type library after oleaut32 has saved it, on the
// file's MSFT structures directly, for facts its writer records wrongly.
#pragma once

#include "tools/typelib_model.h"

#include <string>

namespace msft {

// Rewrites the facts the writer gets wrong; false with a reason when the
// file is not laid out as expected.
bool correct_file(const std::wstring& path, const typelib_model::library_entry& library, std::string* problem);

// Checks the facts that the reading API does not show: the names locale and
// the file names of the imported libraries; every difference, one a line.
bool check_file(const std::wstring& path, const typelib_model::library_entry& library, std::string* problem);

}  // namespace msft
