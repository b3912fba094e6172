// SPDX-License-Identifier: MIT
// Text renderings of values for logs and diagnostics: XML and a compact friendly form.
// Both walk nested arrays, escape strings for XML and write a failure into the output
// as an <Error> element instead of throwing.
#include <ctime>
#include <exception>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

namespace {

constexpr const char* kXmlIndent = "   ";
constexpr const char* kFriendlyIndent = "    ";

CStdStr indentFor(int depth, const char* unit) {
    CStdStr prefix;
    for (int i = 0; i < depth; ++i) {
        prefix += unit;
    }
    return prefix;
}

// XML-escapes `text`; '&' goes first so that the entities are not escaped again.
CStdStr escaped(CStdStr text) {
    text.Replace("&", "&amp;");
    text.Replace("\"", "&quot;");
    text.Replace("'", "&apos;");
    text.Replace("<", "&lt;");
    text.Replace(">", "&gt;");
    return text;
}

CStdStr escapedBstr(BSTR text) { return escaped(detail::bstrText(text)); }

// A bus date as "YYYY-MM-DD hh:mm:ss" in UTC ("" when it is out of range).
CStdStr dateText(double date) {
    const std::time_t t = DateToTime(date);
    std::tm parts{};
    char text[64] = {};
    if (gmtime_r(&t, &parts) != nullptr) {
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    }
    return CStdStr(text);
}

void scalarToXml(const tagVARIANT& v, const char* in, CStdStr& out) {
    switch (v.vt) {
        case VT_EMPTY:
            return out.AppendFormat("%s<var vt=\"VT_EMPTY\" />\n", in);
        case VT_NULL:
            return out.AppendFormat("%s<var vt=\"VT_NULL\" />\n", in);
        case VT_I1:
            return out.AppendFormat("%s<var vt=\"VT_I1\">%hd</var>\n", in, short{v.cVal});
        case VT_UI1:
            return out.AppendFormat("%s<var vt=\"VT_UI1\">%hu</var>\n", in,
                                    static_cast<unsigned short>(v.bVal));
        case VT_I2:
            return out.AppendFormat("%s<var vt=\"VT_I2\">%hd</var>\n", in, v.iVal);
        case VT_UI2:
            return out.AppendFormat("%s<var vt=\"VT_UI2\">%hu</var>\n", in, v.uiVal);
        case VT_I4:
            return out.AppendFormat("%s<var vt=\"VT_I4\">%d</var>\n", in, v.lVal);
        case VT_UI4:
            return out.AppendFormat("%s<var vt=\"VT_UI4\">%lu</var>\n", in,
                                    static_cast<unsigned long>(v.ulVal));
        case VT_I8:
            return out.AppendFormat("%s<var vt=\"VT_I8\">%lld</var>\n", in,
                                    static_cast<long long>(v.llVal));
        case VT_UI8:
            return out.AppendFormat("%s<var vt=\"VT_UI8\">%llu</var>\n", in,
                                    static_cast<unsigned long long>(v.ullVal));
        case VT_R4:
            return out.AppendFormat("%s<var vt=\"VT_R4\">%f</var>\n", in, double{v.fltVal});
        case VT_R8:
            return out.AppendFormat("%s<var vt=\"VT_R8\">%f</var>\n", in, v.dblVal);
        case VT_BSTR:
            return out.AppendFormat("%s<var vt=\"VT_BSTR\">%s</var>\n", in,
                                    escapedBstr(v.bstrVal).c_str());
        case VT_BOOL:
            return out.AppendFormat("%s<var vt=\"VT_BOOL\">%s</var>\n", in,
                                    v.boolVal != 0 ? "TRUE" : "FALSE");
        case VT_DATE:
            return out.AppendFormat("%s<var vt=\"VT_DATE\">%s</var>\n", in,
                                    dateText(v.date).c_str());
        default:
            return out.AppendFormat("%s<var vt=\"%d (unknown)\" />\n", in, v.vt);
    }
}

// Opening line, one child line per element from `child(i, childIndent)`, closing line.
template <typename Child>
void listToXml(const char* arrayType, int count, const char* in, int depth, CStdStr& out,
               Child child) {
    out.AppendFormat("%s<var vt=\"VT_ARRAY|%s\" count=\"%d\">\n", in, arrayType, count);
    const CStdStr childIndent = indentFor(depth + 1, kXmlIndent);
    for (int i = 0; i < count; ++i) {
        child(i, childIndent.c_str());
    }
    out.AppendFormat("%s</var>\n", in);
}

void arrayToXml(const tagVARIANT& v, const char* in, int depth, CStdStr& out) {
    const int count = GetArrayLength(v);
    switch (v.vt & ~VT_ARRAY) {
        case VT_VARIANT:
            return listToXml("VT_VARIANT", count, in, depth, out, [&](int i, const char*) {
                const KibVariantHolder element = detail::fetchVariant(v, i);
                VariantToXML(&element.get(), depth + 1, out);
            });
        case VT_BSTR:
            return listToXml("VT_BSTR", count, in, depth, out, [&](int i, const char* ci) {
                out.AppendFormat("%s<var vt=\"VT_BSTR\">%s</var>\n", ci,
                                 escaped(GetStringElement(v, i)).c_str());
            });
        case VT_I2:
            return listToXml("VT_I2", count, in, depth, out, [&](int i, const char* ci) {
                short value = 0;
                GetElement(v, i, value);
                out.AppendFormat("%s<var vt=\"VT_I2\">%d</var>\n", ci, value);
            });
        case VT_UI2:
            return listToXml("VT_UI2", count, in, depth, out, [&](int i, const char* ci) {
                unsigned short value = 0;
                GetElement(v, i, value);
                out.AppendFormat("%s<var vt=\"VT_UI2\">%d</var>\n", ci, value);
            });
        case VT_I4:
            return listToXml("VT_I4", count, in, depth, out, [&](int i, const char* ci) {
                int value = 0;
                GetElement(v, i, value);
                out.AppendFormat("%s<var vt=\"VT_I4\">%d</var>\n", ci, value);
            });
        case VT_UI4:
            return listToXml("VT_UI4", count, in, depth, out, [&](int i, const char* ci) {
                unsigned long value = 0;
                GetElement(v, i, value);
                out.AppendFormat("%s<var vt=\"VT_UI4\">%u</var>\n", ci,
                                 static_cast<unsigned int>(value));
            });
        case VT_I8:
            return listToXml("VT_I8", count, in, depth, out, [&](int i, const char* ci) {
                long long value = 0;
                GetElement(v, i, value);
                out.AppendFormat("%s<var vt=\"VT_I8\">%lld</var>\n", ci, value);
            });
        case VT_UI8:
            return listToXml("VT_UI8", count, in, depth, out, [&](int i, const char* ci) {
                unsigned long long value = 0;
                GetElement(v, i, value);
                out.AppendFormat("%s<var vt=\"VT_UI8\">%llu</var>\n", ci, value);
            });
        case VT_I1:
            return out.AppendFormat("%s<var vt=\"VT_ARRAY|VT_I1\" count=\"%d\" />\n", in, count);
        case VT_UI1:
            return out.AppendFormat("%s<var vt=\"VT_ARRAY|VT_UI1\" count=\"%d\" />\n", in, count);
        case VT_R4:
            return out.AppendFormat("%s<var vt=\"VT_ARRAY|VT_R4\" count=\"%d\" />\n", in, count);
        case VT_R8:
            return out.AppendFormat("%s<var vt=\"VT_ARRAY|VT_R8\" count=\"%d\" />\n", in, count);
        default:
            return out.AppendFormat("%s<var vt=\"%d (unknown)\" />\n", in, v.vt);
    }
}

void scalarToFriendly(const tagVARIANT& v, const char* in, CStdStr& out) {
    switch (v.vt) {
        case VT_EMPTY:
            return out.AppendFormat("%s(empty)", in);
        case VT_NULL:
            return out.AppendFormat("%s(null)", in);
        case VT_I1:
            return out.AppendFormat("%s%hd", in, short{v.cVal});
        case VT_UI1:
            return out.AppendFormat("%s%hu", in, static_cast<unsigned short>(v.bVal));
        case VT_I2:
            return out.AppendFormat("%s%hd", in, v.iVal);
        case VT_UI2:
            return out.AppendFormat("%s%hu", in, v.uiVal);
        case VT_I4:
            return out.AppendFormat("%s%d", in, v.lVal);
        case VT_UI4:
            return out.AppendFormat("%s%lu", in, static_cast<unsigned long>(v.ulVal));
        case VT_I8:
            return out.AppendFormat("%s%lld", in, static_cast<long long>(v.llVal));
        case VT_UI8:
            return out.AppendFormat("%s%llu", in, static_cast<unsigned long long>(v.ullVal));
        case VT_R4:
            return out.AppendFormat("%s%f", in, double{v.fltVal});
        case VT_R8:
            return out.AppendFormat("%s%f", in, v.dblVal);
        case VT_BSTR:
            return out.AppendFormat("%s\"%s\"", in, escapedBstr(v.bstrVal).c_str());
        case VT_BOOL:
            return out.AppendFormat("%s%s", in, v.boolVal != 0 ? "true" : "false");
        case VT_DATE:
            return out.AppendFormat("%s(date)%s", in, dateText(v.date).c_str());
        default:
            return out.AppendFormat("%s(unknown vt %d)", in, v.vt);
    }
}

void arrayToFriendly(const tagVARIANT& v, const char* in, int depth, CStdStr& out) {
    const int count = GetArrayLength(v);
    const VARTYPE elementVt = v.vt & ~VT_ARRAY;
    if (elementVt == VT_VARIANT || elementVt == VT_BSTR) {
        // Elements one per line, separated by ",\n"; the closing bracket on its own line.
        out.AppendFormat("%s[\n", in);
        const CStdStr childIndent = indentFor(depth + 1, kFriendlyIndent);
        for (int i = 0; i < count; ++i) {
            const char* separator = i + 1 < count ? ",\n" : "\n";
            if (elementVt == VT_BSTR) {
                out.AppendFormat("%s\"%s\"%s", childIndent.c_str(),
                                 escaped(GetStringElement(v, i)).c_str(), separator);
            } else {
                const KibVariantHolder element = detail::fetchVariant(v, i);
                VariantToFriendlyString(&element.get(), out, depth + 1);
                out += separator;
            }
        }
        return out.AppendFormat("%s]", in);
    }
    const char* name = nullptr;
    switch (elementVt) {
        case VT_I1:
            name = "I1";
            break;
        case VT_UI1:
            name = "UI1";
            break;
        case VT_I2:
            name = "I2";
            break;
        case VT_UI2:
            name = "UI2";
            break;
        case VT_I4:
            name = "I4";
            break;
        case VT_UI4:
            name = "UI4";
            break;
        case VT_I8:
            name = "I8";
            break;
        case VT_UI8:
            name = "UI8";
            break;
        case VT_R4:
            name = "R4";
            break;
        case VT_R8:
            name = "R8";
            break;
        default:
            return out.AppendFormat("%s(unknown vt %d)", in, v.vt);
    }
    out.AppendFormat("%s[%d %s elements]", in, count, name);
}

}  // namespace

void VariantToXML(const tagVARIANT* v, CStdStr& out) { VariantToXML(v, 0, out); }

void VariantToXML(const tagVARIANT* v, int depth, CStdStr& out) {
    const CStdStr in = indentFor(depth, kXmlIndent);
    try {
        if (v == nullptr) {
            detail::fail("no value to render");
        }
        if ((v->vt & VT_ARRAY) != 0) {
            arrayToXml(*v, in.c_str(), depth, out);
        } else {
            scalarToXml(*v, in.c_str(), out);
        }
    } catch (const KibException& e) {
        out.AppendFormat("%s<Error>%s</Error>\n", in.c_str(), e.message());
    } catch (const std::exception& e) {
        out.AppendFormat("%s<Error>%s</Error>\n", in.c_str(), e.what());
    }
}

void VariantToFriendlyString(const tagVARIANT* v, CStdStr& out, int depth) {
    const CStdStr in = indentFor(depth, kFriendlyIndent);
    try {
        if (v == nullptr) {
            detail::fail("no value to render");
        }
        if ((v->vt & VT_ARRAY) != 0) {
            arrayToFriendly(*v, in.c_str(), depth, out);
        } else {
            scalarToFriendly(*v, in.c_str(), out);
        }
    } catch (const KibException& e) {
        out.AppendFormat("%s<Error>%s</Error>", in.c_str(), e.message());
    } catch (const std::exception& e) {
        out.AppendFormat("%s<Error>%s</Error>", in.c_str(), e.what());
    }
}

CStdStr Dump(const tagVARIANT* v, const CStdStr& label) {
    CStdStr text("Dumping ");
    text += label;
    text += ": ";
    VariantToXML(v, 0, text);
    return text;
}

}  // namespace VUtil
