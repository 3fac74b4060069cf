// The fmt library's code, compiled once. As a header only, each source that formats a text would compile all of it again:
// four of its five seconds.
#include <fmt/format-inl.h>

namespace fmt {
inline namespace v9 {
namespace detail {

template thousands_sep_result<char> thousands_sep_impl<char>(locale_ref);
template thousands_sep_result<wchar_t> thousands_sep_impl<wchar_t>(locale_ref);
template char decimal_point_impl<char>(locale_ref);
template wchar_t decimal_point_impl<wchar_t>(locale_ref);
template dragonbox::decimal_fp<float> dragonbox::to_decimal<float>(float) noexcept;
template dragonbox::decimal_fp<double> dragonbox::to_decimal<double>(double) noexcept;

} // namespace detail

template detail::locale_ref::locale_ref(const std::locale&);
template std::locale detail::locale_ref::get<std::locale>() const;

} // namespace v9
} // namespace fmt
