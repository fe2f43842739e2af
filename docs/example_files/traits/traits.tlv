tolvan v1.0.0
 Simulated trial of 30 lines in 4 replicates: grain and straw

Messages
--------
    Note: reading traits.csv as FREE FORMAT skipping 1 lines

Data
----
 Variable                          Records   Missing     Zeros         Mean      Minimum      Maximum
 line                                  120         0         0  30 levels
 rep                                   120         0         0  4 levels
 grain                                 120         0         0   5.6038       3.2460       8.3280    
 straw                                 120         2         0   9.7590       4.6560       14.596    

 line
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

 rep
 Level                                Count
 1                                       30
 2                                       30
 3                                       30
 4                                       30

Model
-----
 Currently defined structures, COLS and LEVELS
    1  trait:line               US        3        2
    2  us(trait):line           IDEN      0       30
    3  units:us(trait)          IDEN      0      120
    4  units.us(trait)          US        3        2
 Model specification:  TERM LEVELS GAMMAS
       mu                              1
       trait                           2
       trait:rep                       8
       us(trait):line                 60  0.4952     P  0.5604     P   2.158     P
       mv_estimates                    2
 SECTIONS    RECORDS  TYPE   STRUCT
        1        240  IDEN x US  units.us(trait)  0.4952     P  0.5604     P   2.158     P

Iterations
----------
iteration    1  LogL  -166.432      sigma2   1.0000      df       230  step  1.000  restrained    0  parameters  0.4952      0.5604       2.158      0.4952      0.5604       2.158
iteration    2  LogL  -162.489      sigma2   1.0000      df       230  step  1.000  restrained    0  parameters  0.4894      0.8926       2.790      0.5438      0.3761       1.780
iteration    3  LogL  -162.418      sigma2   1.0000      df       230  step  1.000  restrained    0  parameters  0.5277      0.9317       2.941      0.5426      0.3737       1.779
iteration    4  LogL  -162.418      sigma2   1.0000      df       230  step  1.000  restrained    0  parameters  0.5278      0.9304       2.938      0.5427      0.3739       1.780
 Final parameter values:
  0.52780754      0.93041583       2.9381791      0.54271538      0.37387739    
   1.7795685    

Messages of the fit
-------------------
    Note: this job uses all of the 2 processor threads

    Note: 3 singularties detected (tolerance: 0.10E-07)

    Note: Akaike Information Criterion     336.84 (assuming 6 parameters).

    Note: Bayesian Information Criterion     357.46 (assuming 230 degrees of freedom).

Results
-------
 LogL Converged;

Model_Term                          Gamma           Sigma              SE  Sigma/SE     %     C
trait:line;trait.US_V_1_1        0.527808        0.527808        0.175450      3.01     0     P
trait:line;trait.US_C_2_1        0.930416        0.930416        0.338473      2.75     0     P
trait:line;trait.US_V_2_2         2.93818         2.93818        0.893462      3.29     0     P
units.us(trait);US_V_1_1         0.542715        0.542715    0.822863E-01      6.60     0     P
units.us(trait);US_C_2_1         0.373877        0.373877        0.113902      3.28     0     P
units.us(trait);US_V_2_2          1.77957         1.77957        0.272525      6.53     0     P
code B - fixed at a boundary             F - fixed by user
     ? - liable to change from P to B    P - positive definite
     C - Constrained by user             U - unbounded
     S - Singular Information matrix

 LogL                              -162.41769    
 Residual degrees of freedom                  230
 Akaike information criterion       336.83537    
   with variance parameters                     6
 Bayesian information criterion     357.46385    
 log|C|                             129.11719    

Covariance/Variance/Correlation Matrix trait:line;trait.US
      COLUMN        COLUMN
      0.5278        0.7471
      0.9304         2.938

Eigenvalues of trait:line;trait.US
  Eigenvalue        %
       3.256    93.93
      0.2104     6.07

Covariance/Variance/Correlation Matrix units.us(trait);US
      COLUMN        COLUMN
      0.5427        0.3804
      0.3739         1.780

Eigenvalues of units.us(trait);US
  Eigenvalue        %
       1.884    81.12
      0.4385    18.88

Time
----
END OF AIDATA_BODY
AIDATA_BODY                   0.02      1 calls)
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
K4MITR                        0.00      4 calls)
K4MSSF                        0.00      4 calls)
REORDER_MATRIX                0.00      1 calls)
K4MXXS                        0.00      4 calls)
K4MXXG                        0.00      4 calls)
K4MXXAIL                      0.00      4 calls)
SMIFWD                        0.00      4 calls)
K4MWVG                        0.00      4 calls)
K4MWVR                        0.00      4 calls)
K4MWVA                        0.00      4 calls)
K4MSMI                        0.00      4 calls)
K4MSCG                        0.00      4 calls)
K4MSCR                        0.00      4 calls)
K4MUPD                        0.00      4 calls)
K4MRIE                        0.01      1 calls)
NEW_AIDRPT                    0.00      1 calls)
Other                         0.00
