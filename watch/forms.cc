#include "watch/forms.h"

#include "watch/json/json.h"
#include "watch/serve/serve.h"

namespace {

// In the order of the help text.
constexpr const Form* kForms[] = {
    &kJsonForm,
    &kServeForm,
};

}  // namespace

std::span<const Form* const> formsAll() {
    return kForms;
}
