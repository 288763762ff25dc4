// Numbers of the dialogs, their controls and titles. Read by the resource compiler too.
#pragma once

#define IDD_AUDIO 102
#define IDD_GAIN 118
#define IDD_CONVERTER 145

#define IDS_AUDIO 102
#define IDS_GAIN 118
#define IDS_CONVERTER 145

// On every page: the text shown in place of everything else, and the message line.
#define IDC_NOT_AVAILABLE 200
#define IDC_MESSAGE 201
#define IDC_REVERT 202
#define IDC_LIVE 203

// One after the other, in the order of the interface's properties.
#define IDC_YOFF 210
#define IDC_CROFF 211
#define IDC_CBOFF 212
#define IDC_Y1 213
#define IDC_R1 214
#define IDC_G1 215
#define IDC_G2 216
#define IDC_B1 217
#define IDC_RMIN 218
#define IDC_RMAX 219
#define IDC_GMIN 220
#define IDC_GMAX 221
#define IDC_BMIN 222
#define IDC_BMAX 223
#define IDC_DEFAULT 224
#define IDC_MATRIX 225
#define IDC_MATRIX_NOTE 226
// What the card makes of each coefficient.
#define IDC_Y1_CARD 260
#define IDC_R1_CARD 261
#define IDC_G1_CARD 262
#define IDC_G2_CARD 263
#define IDC_B1_CARD 264

// Red, green, blue in each group of three.
#define IDC_RED_GAIN 230
#define IDC_GREEN_GAIN 231
#define IDC_BLUE_GAIN 232
#define IDC_RED_OFFSET 233
#define IDC_GREEN_OFFSET 234
#define IDC_BLUE_OFFSET 235
#define IDC_RED_SLIDER 236
#define IDC_GREEN_SLIDER 237
#define IDC_BLUE_SLIDER 238
#define IDC_RED_SPIN 239
#define IDC_GREEN_SPIN 240
#define IDC_BLUE_SPIN 241
#define IDC_RED_ZERO 242
#define IDC_GREEN_ZERO 243
#define IDC_BLUE_ZERO 244
#define IDC_LINK 245
#define IDC_UNITY 246
#define IDC_ANALYZE 247
#define IDC_MEAN 248
#define IDC_MEAN_NOTE 249
#define IDC_ZERO_OFFSETS 251
// What the card makes of each gain and offset.
#define IDC_RED_GAIN_CARD 252
#define IDC_GREEN_GAIN_CARD 253
#define IDC_BLUE_GAIN_CARD 254
#define IDC_RED_OFFSET_CARD 255
#define IDC_GREEN_OFFSET_CARD 256
#define IDC_BLUE_OFFSET_CARD 257

#define IDC_BITS 250
