/*
 * codes.h - what the parts of <eas/node.h> share: return codes, sizes of texts.
 */
#ifndef EAS_NODE_CODES_H
#define EAS_NODE_CODES_H

#ifndef EAS_API
#if defined(__GNUC__)
#define EAS_API __attribute__((visibility("default")))
#else
#define EAS_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What the functions return. */
enum easnode_return_code {
    EASNODE_OK = 0,
    EASNODE_BAD_ARGUMENT = -1,    /* null, out of range, or a record whose size is too small */
    EASNODE_NO_MEMORY = -2,       /* nothing was changed */
    EASNODE_NO_SUCH_SOURCE = -3,  /* a list of sources names one that does not exist */
    EASNODE_NO_SUCH_PROCESS = -4, /* the process to follow does not exist */
    EASNODE_TOO_SMALL = -5,       /* there is more than the caller has room for */
    EASNODE_NO_FREQUENCY = -6,    /* no cpufreq driver: no frequency can be set */
    EASNODE_NOT_OFFERED = -7,     /* a frequency that is not offered, or forbidden by a limit */
    EASNODE_DENIED = -8,          /* the kernel asks for a privilege */
    EASNODE_NOT_TAKEN = -9,       /* the driver refused a setting, or did not keep it */
    EASNODE_BAD_TEXT = -10,       /* a text of settings that is damaged, or none */
    EASNODE_OTHER_NODE = -11,     /* a text of another boot or another driver */
    EASNODE_MOVED = -12,          /* given back, but another program had changed it meanwhile */
    EASNODE_NOT_GIVEN_BACK = -13, /* a setting could not be given back */
    EASNODE_STOPPED = -14         /* the caller's function stopped it */
};

/*
 * What a return code means, as an English text without a full stop. Never null; a text that stays.
 */
EAS_API const char* easnode_error_text(int code);

enum {
    EASNODE_NAME_SIZE = 32, /* bytes of a source's name, NUL included */
    EASNODE_TEXT_SIZE = 192 /* bytes of a sentence, NUL included; a longer one is cut */
};

#ifdef __cplusplus
}
#endif

#endif /* EAS_NODE_CODES_H */
