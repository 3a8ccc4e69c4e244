// The string collection at 100,000 strings: Add without and with
// uniqueness, lookup by text and Sort, each next to the same VarBstrCmp
// work done here directly on a std::vector of BSTRs.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "kyutils.h"

namespace {

constexpr int kCount = 100000;
constexpr int kProbes = 200;               // lookups, and adds to a full collection
constexpr ULONG kFlags = NORM_IGNORECASE;  // the search groups' flags

// Distinct even without regard to case: a random word and a number.
std::vector<BSTR> MakeStrings(int count, int salt, std::mt19937& random) {
    std::vector<BSTR> strings;
    for (int i = 0; i < count; ++i) {
        std::wstring text;
        for (int j = 0, length = 4 + random() % 8; j < length; ++j) text.push_back(L"aBcDeFgHiJkLmNoP"[random() % 16]);
        text += L"-" + std::to_wstring(salt) + L"-" + std::to_wstring(i);
        strings.push_back(::SysAllocString(text.c_str()));
    }
    return strings;
}

void Free(std::vector<BSTR>& strings) {
    for (BSTR s : strings) ::SysFreeString(s);
    strings.clear();
}

IStrings* NewStrings(bool unique) {
    IStrings* strings = nullptr;
    if (FAILED(::CoCreateInstance(CLSID_KyStrings, nullptr, CLSCTX_INPROC_SERVER, IID_IStrings,
                                  reinterpret_cast<void**>(&strings)))) {
        std::printf("KyUtils.KyStrings is not registered\n");
        ::ExitProcess(1);
    }
    strings->put_CompareFlags(kFlags);
    strings->put_UniqueStrings(unique ? VARIANT_TRUE : VARIANT_FALSE);
    return strings;
}

bool ScanFinds(const std::vector<BSTR>& items, BSTR text, ULONG flags) {
    for (BSTR item : items)
        if (::VarBstrCmp(text, item, LOCALE_USER_DEFAULT, flags) == VARCMP_EQ) return true;
    return false;
}

// Best of three: `prepare` is not timed.
double Timed(const std::function<void()>& prepare, const std::function<void()>& body) {
    double best = 1e300;
    for (int round = 0; round < 3; ++round) {
        prepare();
        best = std::min(best, ky::bench::Seconds(body, 1));
    }
    return best;
}

}  // namespace

int main() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::mt19937 random(2003);
    std::vector<BSTR> texts = MakeStrings(kCount, 0, random);
    std::vector<BSTR> extra = MakeStrings(kProbes, 1, random);
    std::printf("%d strings, CompareFlags NORM_IGNORECASE\n", kCount);

    // Add without uniqueness: appending copies.
    {
        IStrings* strings = nullptr;
        std::vector<BSTR> copies;
        double ours = Timed(
            [&] {
                if (strings) strings->Release();
                strings = NewStrings(false);
            },
            [&] {
                for (BSTR text : texts) strings->Add(text);
            });
        double base = Timed(
            [&] {
                Free(copies);
                copies.reserve(kCount);
            },
            [&] {
                for (BSTR text : texts) copies.push_back(::SysAllocString(text));
            });
        ky::bench::Report("Add, UniqueStrings off", ours, "vector push_back of copies", base, kCount);
        strings->Release();
        Free(copies);
    }

    // Add with uniqueness: at full size, one more string each; and the
    // whole list from empty, whose scanning baseline is N(N-1)/2 of the
    // comparisons measured at full size.
    IStrings* full = NewStrings(true);
    {
        double fill = Timed(
            [&] {
                full->Release();
                full = NewStrings(true);
            },
            [&] {
                for (BSTR text : texts) full->Add(text);
            });
        auto backToFull = [&] {
            long count = 0;
            full->get_Count(&count);
            for (; count > kCount; --count) {
                VARIANT last;
                V_VT(&last) = VT_I4;
                V_I4(&last) = count - 1;
                full->Remove(last);
            }
        };
        double ours = Timed(backToFull, [&] {
            for (BSTR text : extra) full->Add(text);
        });
        backToFull();
        double base = Timed([] {},
                            [&] {
                                for (BSTR text : extra) ScanFinds(texts, text, kFlags);
                            });
        ky::bench::Report("Add, UniqueStrings on, to 100000", ours, "linear VarBstrCmp scan", base, kProbes);
        std::printf("%-44s %10.0fx\n", "  faster than the scan by", base / ours);
        double perComparison = base / (double(kProbes) * kCount);
        double fullScan = perComparison * double(kCount) * (kCount - 1) / 2;
        ky::bench::Report("Add, UniqueStrings on, 0 to 100000", fill, "N(N-1)/2 scan comparisons", fullScan, kCount);
        std::printf("%-44s %10.0fx\n", "  faster than the scan by", fullScan / fill);
    }

    // Lookups and removals by text compare case-sensitively whatever
    // CompareFlags holds: the same targets under several flag values, each
    // next to Item by position on the same collection.
    {
        std::vector<long> positions;
        std::vector<BSTR> targets;
        for (int i = 0; i < kProbes; ++i) {
            positions.push_back(static_cast<long>(random() % kCount));
            targets.push_back(texts[positions.back()]);
        }
        auto key = [](BSTR text) {
            VARIANT v;
            V_VT(&v) = VT_BSTR;
            V_BSTR(&v) = text;
            return v;
        };
        double scan = Timed([] {},
                            [&] {
                                for (BSTR target : targets)
                                    for (BSTR item : texts)
                                        if (::VarBstrCmp(item, target, LOCALE_USER_DEFAULT, 0) == VARCMP_EQ) break;
                            });
        for (ULONG flags : {0ul, kFlags, ULONG(NORM_IGNORECASE | NORM_IGNOREWIDTH | NORM_IGNOREKANATYPE), 0x10000000ul}) {
            std::printf("CompareFlags 0x%08lX\n", flags);
            full->put_CompareFlags(flags);
            double byPosition = Timed([] {},
                                      [&] {
                                          for (long position : positions) {
                                              VARIANT at;
                                              V_VT(&at) = VT_I4;
                                              V_I4(&at) = position;
                                              BSTR found = nullptr;
                                              full->get_Item(at, &found);
                                              ::SysFreeString(found);
                                          }
                                      });
            double byText = Timed([] {},
                                  [&] {
                                      for (BSTR target : targets) {
                                          BSTR found = nullptr;
                                          full->get_Item(key(target), &found);
                                          ::SysFreeString(found);
                                      }
                                  });
            // The removed strings go back (at the end) before each round.
            double removal = Timed(
                [&] {
                    for (BSTR target : targets) full->Add(target);
                },
                [&] {
                    for (BSTR target : targets) full->Remove(key(target));
                });
            for (BSTR target : targets) full->Add(target);
            ky::bench::Report("  Item by text", byText, "Item by position", byPosition, kProbes);
            ky::bench::Report("  Remove by text", removal, "Item by position", byPosition, kProbes);
            ky::bench::Report("  Item by text", byText, "linear VarBstrCmp scan", scan, kProbes);
        }
        full->put_CompareFlags(kFlags);
    }
    full->Release();

    // Sort, ascending, from the same shuffled order each time.
    {
        std::vector<BSTR> shuffled = texts;
        std::shuffle(shuffled.begin(), shuffled.end(), random);
        IStrings* strings = NewStrings(false);
        std::vector<BSTR> order;
        auto ascending = [](BSTR a, BSTR b) { return ::VarBstrCmp(a, b, LOCALE_USER_DEFAULT, kFlags) == VARCMP_LT; };
        double ours = Timed(
            [&] {
                strings->Release();
                strings = NewStrings(false);
                for (BSTR text : shuffled) strings->Add(text);
            },
            [&] { strings->Sort(VARIANT_TRUE, 0, 0); });
        double base =
            Timed([&] { order = shuffled; }, [&] { std::stable_sort(order.begin(), order.end(), ascending); });
        ky::bench::Report("Sort", ours, "std::stable_sort, VarBstrCmp", base, 1);
        strings->Release();
    }

    Free(texts);
    Free(extra);
    ::CoUninitialize();
    return 0;
}
