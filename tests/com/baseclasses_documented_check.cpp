// Compares the project's base classes with the list of what is documented: every class derives from what it should,
// every virtual function can be overridden with the listed signature, everything else has the listed type. Checked by
// the compiler; nothing here runs.
#include <streams.h>

#include <type_traits>

namespace kestra::test::documented {

#define CLASS0(name)                                                                                                   \
    struct Check##name : name {                                                                                        \
        using Documented = name;                                                                                       \
        using Self = Check##name;
#define CLASS1(name, base)                                                                                             \
    static_assert(std::is_base_of_v<base, name>);                                                                      \
    CLASS0(name)
#define CLASS2(name, first, second)                                                                                    \
    static_assert(std::is_base_of_v<first, name>);                                                                     \
    CLASS1(name, second)
#define CLASS3(name, first, second, third)                                                                             \
    static_assert(std::is_base_of_v<first, name>);                                                                     \
    CLASS2(name, second, third)
#define END                                                                                                            \
    }                                                                                                                  \
    ;
#define PROTECTED
#define IUNKNOWN
#define CONSTRUCTOR(name, parameters, arguments, bases)                                                                \
    Check##name parameters : name arguments {}
#define DESTRUCTOR(name) ~Check##name() override;
#define METHOD(result, name, parameters)                                                                               \
    static_assert(sizeof(static_cast<result(Documented::*) parameters>(&Self::name)));
#define CONST_METHOD(result, name, parameters)                                                                         \
    static_assert(sizeof(static_cast<result(Documented::*) parameters const>(&Self::name)));
#define OPERATOR(result, name, parameters, qualifier)                                                                  \
    static_assert(sizeof(static_cast<result(Documented::*) parameters qualifier>(&Documented::name)));
#define STATIC(result, name, parameters) static_assert(sizeof(static_cast<result(*) parameters>(&Self::name)));
#define VIRTUAL(result, name, parameters) result name parameters override;
#define ABSTRACT(result, name, parameters) VIRTUAL(result, name, parameters)
#define MEMBER(type, name) static_assert(std::is_same_v<decltype(Self::name), type>);
#define VARIABLE(type, name, bounds) static_assert(std::is_same_v<decltype(::name), type bounds>);
#define FUNCTION(result, name, parameters) static_assert(sizeof(static_cast<result(*) parameters>(&::name)));
#include "tests/com/documented_streams/documented.inc"

} // namespace kestra::test::documented
