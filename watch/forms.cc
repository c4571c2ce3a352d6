#include "watch/forms.h"

#include "watch/json/json.h"

namespace {

// In the order of the help text.
constexpr const Form* kForms[] = {
    &kJsonForm,
};

}  // namespace

std::span<const Form* const> formsAll() {
    return kForms;
}
