// What the verdicts are called: the one list of these words.
#include "nax_meter.h"

struct Words {
    const char *name, *text;
};

static constexpr Words WORDS[] = {
    {"searching", "too little far end was heard yet to judge"},
    {"cancelling", "the echo is being cancelled"},
    {"reference-silent", "nothing is played, there is nothing to do"},
    {"near-end-only", "nothing is played, the microphone hears the near end alone"},
    {"not-heard",
     "the reference plays, but the microphone does not hear it: there is nothing to cancel"},
    {"no-microphone", "no sound comes from the microphone"},
    {"no-reference", "the microphone hears something, but no reference ever came"},
    {"not-cancelling", "the echo is there and is not cancelled"},
    {"clipped", "a reference or a microphone clips"},
    {"delay-moves", "the delay of the echo does not stay"},
    {"reference-is-microphone",
     "the reference is the microphone, so the near end is removed as well"},
};
static_assert(sizeof WORDS / sizeof *WORDS == NAX_METER_VERDICTS);

static bool is_verdict(int32_t verdict) { return verdict >= 0 && verdict < NAX_METER_VERDICTS; }

const char *nax_meter_name(int32_t verdict)
{
    return is_verdict(verdict) ? WORDS[verdict].name : nullptr;
}

const char *nax_meter_text(int32_t verdict)
{
    return is_verdict(verdict) ? WORDS[verdict].text : nullptr;
}

int32_t nax_meter_is_alarm(int32_t verdict)
{
    return is_verdict(verdict) && verdict >= NAX_METER_NO_MICROPHONE;
}
