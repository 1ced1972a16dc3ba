/* Plugin for QEMU's user emulation: counts the guest's instructions by region.
 *
 * The guest speaks by two system calls that no kernel has, which fail and do nothing:
 *   0x700, r   what runs from here on belongs to region r, 0 to 15
 *   0x701, n   print the counts since the last print as row n
 * A row is "row n: c0 c1 ... c15". For guests with one thread.
 *
 * The few declarations needed of QEMU's plugin interface, version 1, stand here because
 * Debian ships no header for it. */
#include <inttypes.h>
#include <stdio.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*translated)(qemu_plugin_id_t,
                                                              struct qemu_plugin_tb *));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *block, int operation,
                                              void *counter, uint64_t amount);
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id,
                                          void (*called)(qemu_plugin_id_t, unsigned, int64_t,
                                                         uint64_t, uint64_t, uint64_t, uint64_t,
                                                         uint64_t, uint64_t, uint64_t, uint64_t));
void qemu_plugin_outs(const char *text);

enum { ADD = 0, ENTER = 0x700, PRINT = 0x701, REGIONS = 16 };

int qemu_plugin_version = 1;
static uint64_t executed;
static uint64_t entered_at;
static uint64_t counts[REGIONS];
static unsigned region;

/* A system call ends a block, so the regions' limits are limits of blocks. */
static void translated(qemu_plugin_id_t id, struct qemu_plugin_tb *block)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, ADD, &executed, qemu_plugin_tb_n_insns(block));
}

static void print_row(uint64_t row)
{
    char text[32 * (REGIONS + 2)];
    int length = snprintf(text, sizeof text, "row %" PRIu64 ":", row);
    for (int r = 0; r < REGIONS; r++) {
        length += snprintf(text + length, sizeof text - (size_t)length, " %" PRIu64, counts[r]);
        counts[r] = 0;
    }
    snprintf(text + length, sizeof text - (size_t)length, "\n");
    qemu_plugin_outs(text);
}

static void called(qemu_plugin_id_t id, unsigned cpu, int64_t number, uint64_t argument,
                   uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6, uint64_t a7,
                   uint64_t a8)
{
    (void)id, (void)cpu, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7, (void)a8;
    if (number != ENTER && number != PRINT) return;
    counts[region] += executed - entered_at;
    entered_at = executed;
    if (number == ENTER) region = argument % REGIONS;
    if (number == PRINT) print_row(argument);
}

__attribute__((visibility("default"))) int
qemu_plugin_install(qemu_plugin_id_t id, const void *info, int argc, char **argv)
{
    (void)info, (void)argc, (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, translated);
    qemu_plugin_register_vcpu_syscall_cb(id, called);
    return 0;
}
