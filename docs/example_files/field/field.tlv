tolvan v1.0.0
 Simulated variety trial on a field of 10 rows by 20 columns
 50 varieties, each once in every block of 5 columns; 6 plots were lost

Messages
--------
    Note: reading field.csv as FREE FORMAT skipping 1 lines

Data
----
 Variable                          Records   Missing     Zeros         Mean      Minimum      Maximum
 row                                   200         0         0  10 levels
 col                                   200         0         0  20 levels
 block                                 200         0         0  4 levels
 variety                               200         0         0  50 levels
 yield                                 200         6         0   6.6024      0.38100       11.211    

 row
 Level                                Count
 1                                       20
 2                                       20
 3                                       20
 4                                       20
 5                                       20
 6                                       20
 7                                       20
 8                                       20
 9                                       20
 10                                      20

 col
 Level                                Count
 1                                       10
 2                                       10
 3                                       10
 4                                       10
 5                                       10
 6                                       10
 7                                       10
 8                                       10
 9                                       10
 10                                      10
 11                                      10
 12                                      10
 13                                      10
 14                                      10
 15                                      10
 16                                      10
 17                                      10
 18                                      10
 19                                      10
 20                                      10

 block
 Level                                Count
 1                                       50
 2                                       50
 3                                       50
 4                                       50

 variety
 Level                                Count
 1                                        4
 2                                        4
 3                                        4
 4                                        4
 5                                        4
 6                                        4
 7                                        4
 8                                        4
 9                                        4
 10                                       4
 11                                       4
 12                                       4
 13                                       4
 14                                       4
 15                                       4
 16                                       4
 17                                       4
 18                                       4
 19                                       4
 20                                       4
 21                                       4
 22                                       4
 23                                       4
 24                                       4
 25                                       4
 26                                       4
 27                                       4
 28                                       4
 29                                       4
 30                                       4
 31                                       4
 32                                       4
 33                                       4
 34                                       4
 35                                       4
 36                                       4
 37                                       4
 38                                       4
 39                                       4
 40                                       4
 41                                       4
 42                                       4
 43                                       4
 44                                       4
 45                                       4
 46                                       4
 47                                       4
 48                                       4
 49                                       4
 50                                       4

Model
-----
 Currently defined structures, COLS and LEVELS
    1  block                    IDEN      1        4
    2  variety                  IDEN      1       50
    3  row:col                  AR        1       10
    4  row:col                  AR        1       20
 Model specification:  TERM LEVELS GAMMAS
       mu                              1
       block                           4  0.1000     P
       variety                        50  0.1000     P
       mv_estimates                    6
 SECTIONS    RECORDS  TYPE   STRUCT
        1        200  AR x AR  row:col  0.1000     P  0.1000     P   1.000     P

Iterations
----------
iteration    1  LogL  -159.698      sigma2   1.7127      df       193  step  1.000  restrained    2  parameters  0.1000      0.1000      0.1000      0.1000       1.000
iteration    2  LogL  -122.295      sigma2   1.0191      df       193  step  1.000  restrained    2  parameters  0.3361      0.6127      0.3000      0.3000       1.000
iteration    3  LogL  -104.692      sigma2  0.98275      df       193  step  1.000  restrained    1  parameters  0.7327      0.9263      0.5000      0.5000       1.000
iteration    4  LogL  -98.9005      sigma2   1.3937      df       193  step  1.000  restrained    0  parameters   1.180      0.6759      0.6014      0.7000       1.000
iteration    5  LogL  -98.4794      sigma2   1.3417      df       193  step  1.000  restrained    0  parameters   1.786      0.6289      0.5897      0.6818       1.000
iteration    6  LogL  -98.4443      sigma2   1.3383      df       193  step  1.000  restrained    0  parameters   2.149      0.6275      0.5902      0.6815       1.000
iteration    7  LogL  -98.4432      sigma2   1.3382      df       193  step  1.000  restrained    0  parameters   2.232      0.6270      0.5904      0.6816       1.000
 Final parameter values:
   2.2315125      0.62699362      0.59037558      0.68156321       1.0000000    

Messages of the fit
-------------------
    Note: this job uses all of the 2 processor threads

    Note: Akaike Information Criterion     206.89 (assuming 5 parameters).

    Note: Bayesian Information Criterion     223.20 (assuming 193 degrees of freedom).

Results
-------
 LogL Converged;

Model_Term                  Gamma           Sigma              SE  Sigma/SE     %     C
block;IDV_V               2.23151         2.98622         2.54977      1.17     4     P
variety;IDV_V            0.626994        0.839045        0.190059      4.41     0     P
row:col;row.AR1_R        0.590376        0.590376    0.787084E-01      7.50     0     P
row:col;col.AR1_R        0.681563        0.681563    0.598513E-01     11.39     0     P
row:col;IDV_V             1.00000         1.33820        0.296593      4.51     0     P
code B - fixed at a boundary             F - fixed by user
     ? - liable to change from P to B    P - positive definite
     C - Constrained by user             U - unbounded
     S - Singular Information matrix

 LogL                              -98.443179    
 Residual degrees of freedom                  193
 Residual variance                  1.3382037    
 Akaike information criterion       206.88636    
   with variance parameters                     5
 Bayesian information criterion     223.19981    
 log|C|                             163.60364    

Time
----
END OF AIDATA_BODY
AIDATA_BODY                   0.01      1 calls)
AIPEDA                        0.00      1 calls)
INITFLL                       0.00      1 calls)
GIV_GRM                       0.00      1 calls)
MODEL_PARSE                   0.00      1 calls)
READ_DATA_FILE                0.00      1 calls)
AIDSUM                        0.00      1 calls)
REORDER_MODEL_TERMS           0.00      1 calls)
K4MPRS                        0.00      1 calls)
AIDSGN                        0.00      1 calls)
BIG_CHUNK_OF_AIDATA           0.00      1 calls)
K4MITR                        0.00      7 calls)
K4MSSF                        0.00      7 calls)
REORDER_MATRIX                0.00      1 calls)
K4MXXS                        0.00      7 calls)
K4MXXG                        0.00      7 calls)
K4MXXAIL                      0.00      7 calls)
SMIFWD                        0.00      7 calls)
K4MWVG                        0.00      7 calls)
K4MWVR                        0.00      7 calls)
K4MWVA                        0.00      7 calls)
K4MSMI                        0.00      7 calls)
K4MSCG                        0.00      7 calls)
K4MSCR                        0.00      7 calls)
K4MUPD                        0.00      7 calls)
K4MRIE                        0.01      1 calls)
NEW_AIDRPT                    0.00      1 calls)
Other                         0.00
