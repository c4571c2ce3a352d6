#include "watch/forms.h"

#include "watch/compare/compare.h"
#include "watch/json/json.h"
#include "watch/messages/messages.h"
#include "watch/report/report.h"
#include "watch/serve/serve.h"
#ifdef PELMO_WATCH_TOP
#include "watch/top/top.h"
#endif

namespace {

// In the order of the help text.
constexpr const Form* kForms[] = {
    &kJsonForm,   &kServeForm,
#ifdef PELMO_WATCH_TOP
    &kTopForm,
#endif
    &kReportForm, &kCompareForm, &kMessagesForm,
};

}  // namespace

std::span<const Form* const> formsAll() {
    return kForms;
}
