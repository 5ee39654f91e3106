/* Recovery that gets nowhere: it takes the error again, or says that all is well, with no token consumed. */
%define api.prefix {stubborn_}
%code requires {
struct stubborn { const char* text; int32 raise, actions, reports; };
}
%param {struct stubborn* s}
%%
text: 'a' | part 'b';
part: error { s->actions++; if (s->raise) YYERROR; yyerrok; };
