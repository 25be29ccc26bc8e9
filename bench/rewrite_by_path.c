/* SPDX-License-Identifier: GPL-2.0-or-later */
/* rewrite_by_path IMAGE OLD NEW: in the descriptor of every file of an NTFS image the 12 bytes OLD
 * (hexadecimal) become NEW, every file looked up by its path: the plain way to do it with libntfs-3g, for the
 * tool to be measured against. */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

// clang-format off
#include <ntfs-3g/types.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/volume.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/security.h>
#include <ntfs-3g/acls.h>
#include <ntfs-3g/unistr.h>
// clang-format on

enum { KEY = 12 };
static ntfs_volume* volume;
static struct SECURITY_CONTEXT context;
static unsigned char oldKey[KEY], newKey[KEY];
static unsigned long entries;

struct name {
    struct name* next;
    int directory;
    char text[];
};

static int collect(void* list, const ntfschar* name, const int length, const int type, const s64 position,
                   const MFT_REF reference, const unsigned kind) {
    struct name** head = list;
    char* text = NULL;
    (void)position;
    if (type == FILE_NAME_DOS || MREF(reference) < FILE_first_user) return 0;
    if (ntfs_ucstombs(name, length, &text, 0) < 0) return 0;
    if (strcmp(text, ".") != 0 && strcmp(text, "..") != 0) {
        struct name* entry = malloc(sizeof *entry + strlen(text) + 1);
        entry->next = *head;
        entry->directory = kind == NTFS_DT_DIR;
        strcpy(entry->text, text);
        *head = entry;
    }
    free(text);
    return 0;
}

static ntfs_inode* open_path(const char* path) {
    ntfs_inode* inode = ntfs_pathname_to_inode(volume, NULL, path);
    if (!inode) {
        fprintf(stderr, "rewrite_by_path: %s: %s\n", path, strerror(errno));
        exit(1);
    }
    return inode;
}

static void rewrite(const char* path) {
    static unsigned char descriptor[65536];
    ntfs_inode* inode = open_path(path);
    int size = ntfs_get_ntfs_acl(&context, inode, (char*)descriptor, sizeof descriptor), changed = 0;
    for (int i = 0; i + KEY <= size; i++) {
        if (memcmp(descriptor + i, oldKey, KEY) != 0) continue;
        memcpy(descriptor + i, newKey, KEY);
        changed = 1;
    }
    if (changed && ntfs_set_ntfs_acl(&context, inode, (char*)descriptor, (size_t)size, 0) != 0) {
        fprintf(stderr, "rewrite_by_path: %s: %s\n", path, strerror(errno));
        exit(1);
    }
    ntfs_inode_close(inode);
    entries++;
}

static void walk(char* path, size_t length) {
    struct name* list = NULL;
    s64 position = 0;
    ntfs_inode* directory = open_path(length == 0 ? "/" : path);
    ntfs_readdir(directory, &position, &list, collect);
    ntfs_inode_close(directory);
    while (list) {
        struct name* next = list->next;
        const size_t added = strlen(list->text) + 1;
        path[length] = '/';
        strcpy(path + length + 1, list->text);
        rewrite(path);
        if (list->directory) walk(path, length + added);
        path[length] = 0;
        free(list);
        list = next;
    }
}

static void read_key(const char* text, unsigned char* key) {
    for (int i = 0; i < KEY; i++) {
        unsigned byte = 0;
        sscanf(text + 2 * i, "%2x", &byte);
        key[i] = (unsigned char)byte;
    }
}

int main(int count, char** arguments) {
    static char path[65536];
    if (count != 4 || strlen(arguments[2]) != 2 * KEY || strlen(arguments[3]) != 2 * KEY) {
        fprintf(stderr, "usage: rewrite_by_path IMAGE OLD NEW\n");
        return 2;
    }
    read_key(arguments[2], oldKey);
    read_key(arguments[3], newKey);
    volume = ntfs_mount(arguments[1], 0);
    if (!volume) {
        fprintf(stderr, "rewrite_by_path: %s: %s\n", arguments[1], strerror(errno));
        return 1;
    }
    context.vol = volume;
    walk(path, 0);
    printf("%lu entries\n", entries);
    return ntfs_umount(volume, FALSE) != 0;
}
