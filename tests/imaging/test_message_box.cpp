// CopyToClipboard with its default argument really shows its message, which
// a helper thread dismisses, and copies nothing. Run with a display (Xvfb):
// without one, Wine's MessageBox fails at once and there is nothing to see.
#include "imaging/imaging_support.h"
#include "support/box_dismisser.h"

namespace vx::test {
namespace {

const wchar_t message[] = L"I don't know how to put a DIB on the clipboard! Copy as bitmap instead!!!";

void put_text_on_clipboard(const char* text) {
    ASSERT_TRUE(OpenClipboard(nullptr));
    EmptyClipboard();
    HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, strlen(text) + 1);
    strcpy(static_cast<char*>(GlobalLock(memory)), text);
    GlobalUnlock(memory);
    SetClipboardData(CF_TEXT, memory);
    CloseClipboard();
}

std::string text_on_clipboard() {
    std::string text;
    if (!OpenClipboard(nullptr)) return "(not opened)";
    if (HANDLE memory = GetClipboardData(CF_TEXT)) {
        text = static_cast<const char*>(GlobalLock(memory));
        GlobalUnlock(memory);
    }
    if (GetClipboardData(CF_BITMAP)) text += " and a bitmap";
    CloseClipboard();
    return text;
}

TEST(CopyToClipboard, TheDefaultShowsTheMessageAndCopiesNothing) {
    put_text_on_clipboard("left alone");
    com_ptr<_cDIBSection> section = new_section(10, 10);
    box_dismisser dismisser;
    DISPPARAMS none = {};
    unique_variant result;
    ASSERT_EQ(S_OK, section->Invoke(dispid::_cDIBSection::CopyToClipboard, IID_NULL, 0, DISPATCH_METHOD, &none,
                                    result.put(), nullptr, nullptr));
    EXPECT_TRUE(V_VT(result.get()) == VT_BOOL && V_BOOL(result.get()) == VARIANT_FALSE) << "nothing copied";
    const auto seen = dismisser.seen();
    ASSERT_EQ(1u, seen.size()) << "one box shown and dismissed";
    EXPECT_EQ(narrow(message), narrow(seen[0].text));
    EXPECT_EQ("left alone", text_on_clipboard()) << "the clipboard is as it was";
}

}  // namespace
}  // namespace vx::test
