// CopyToClipboard with its default argument really shows its message, which a helper thread dismisses, and copies
// nothing. Run with a display (Xvfb): without one, Wine's MessageBox fails at once and there is nothing to see.
#include "imaging/imaging_support.h"
#include "support/box_dismisser.h"

namespace vx::test {
namespace {

TEST(CopyToClipboard, TheDefaultShowsTheMessageAndCopiesNothing) {
    com_ptr<_cDIBSection> section = new_section(10, 10);
    box_dismisser dismisser;
    DISPPARAMS none = {};
    unique_variant result;
    const DWORD clipboard = GetClipboardSequenceNumber();
    ASSERT_EQ(S_OK, section->Invoke(dispid::_cDIBSection::CopyToClipboard, IID_NULL, 0, DISPATCH_METHOD, &none,
                                    result.put(), nullptr, nullptr));
    EXPECT_TRUE(V_VT(result.get()) == VT_BOOL && V_BOOL(result.get()) == VARIANT_FALSE) << "nothing copied";
    EXPECT_EQ(clipboard, GetClipboardSequenceNumber()) << "the clipboard is as it was";
    const auto seen = dismisser.seen();
    ASSERT_EQ(1u, seen.size()) << "one box shown and dismissed";
    EXPECT_EQ("I don't know how to put a DIB on the clipboard! Copy as bitmap instead!!!", narrow(seen[0].text));
}

}  // namespace
}  // namespace vx::test
